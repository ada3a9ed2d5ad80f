/* QAX kernel: idle handlers and event callbacks. */
#ifndef ZK_CALLBACKS_H
#define ZK_CALLBACKS_H

#include "config.h"

ZK_EXTERN_C_BEGIN

typedef void(ZK_CALL* IdleHandler)(zkAddr user);
typedef void(ZK_CALL* EventCallback)(uint32_t event, zkAddr data);
typedef struct IdleHandlerSlot IdleHandlerSlot;

/* Handle of the slot taken, or null (null handler, or all 32 slots taken). */
ZK_API IdleHandlerSlot* ZK_CALL zkAddIdleHandler(IdleHandler handler, zkAddr user);
ZK_API void ZK_CALL zkRemoveIdleHandler(IdleHandlerSlot* handle);
/* 0, or -31 when all 32 slots are taken. */
ZK_API int32_t ZK_CALL zkAddEventCallback(EventCallback callback);

ZK_EXTERN_C_END

#endif /* ZK_CALLBACKS_H */
