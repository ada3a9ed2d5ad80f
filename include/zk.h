/**
 * @file
 * @brief The whole interface: includes every family header.
 */
#ifndef ZK_H
#define ZK_H

#include "zk/config.h"
#include "zk/result.h"
#include "zk/lifecycle.h"
#include "zk/vblank.h"
#include "zk/window.h"
#include "zk/args.h"
#include "zk/trace.h"
#include "zk/callbacks.h"
#include "zk/profiler.h"
#include "zk/timeutil.h"
#include "zk/memory.h"
#include "zk/pool.h"
#include "zk/memdiag.h"
#include "zk/thread.h"
#include "zk/semaphore.h"
#include "zk/ringbuffer.h"
#include "zk/request.h"
#include "zk/overlay.h"
#include "zk/device.h"
#include "zk/file.h"
#include "zk/profile.h"
#include "zk/archive.h"

#endif /* ZK_H */
