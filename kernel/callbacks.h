// Idle handlers and event callbacks: what the frame loop tells the application.
#ifndef ZK_KERNEL_CALLBACKS_H
#define ZK_KERNEL_CALLBACKS_H

#include <cstdint>

namespace zk {

// Calls every idle handler, in slot order, with its user value. The frame loop
// runs it once each time it is about to block waiting for the next period.
void RunIdleHandlers();
// Calls every event callback, in slot order, with the event and its data.
void RaiseEvent(uint32_t event, uintptr_t data);

} // namespace zk

#endif // ZK_KERNEL_CALLBACKS_H
