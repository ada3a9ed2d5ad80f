// The idle-handler table (32 slots with user values; a slot's address is its
// handle) and the event-callback table (32 slots, no removal). Both live as
// long as the library is loaded and are used from the main thread only.
#include "kernel/callbacks.h"

#include <zk/callbacks.h>
#include <zk/result.h>

struct IdleHandlerSlot {
    IdleHandler handler;
    zkAddr user;
};

namespace zk {

namespace {

constexpr uint32_t kIdleSlots = 32;
constexpr uint32_t kEventSlots = 32;

IdleHandlerSlot g_idleHandlers[kIdleSlots];
EventCallback g_eventCallbacks[kEventSlots];

bool OwnsIdleSlot(const IdleHandlerSlot* slot) {
    return slot >= &g_idleHandlers[0] && slot < &g_idleHandlers[0] + kIdleSlots;
}

} // namespace

void RunIdleHandlers() {
    for (IdleHandlerSlot& slot : g_idleHandlers) {
        if (slot.handler) slot.handler(slot.user);
    }
}

void RaiseEvent(uint32_t event, uintptr_t data) {
    for (EventCallback callback : g_eventCallbacks) {
        if (callback) callback(event, data);
    }
}

} // namespace zk

extern "C" ZK_API IdleHandlerSlot* ZK_CALL zkAddIdleHandler(IdleHandler handler, zkAddr user) {
    if (!handler) return nullptr;
    for (IdleHandlerSlot& slot : zk::g_idleHandlers) {
        if (!slot.handler) {
            slot.handler = handler;
            slot.user = user;
            return &slot;
        }
    }
    return nullptr;
}

extern "C" ZK_API void ZK_CALL zkRemoveIdleHandler(IdleHandlerSlot* handle) {
    if (!handle || !zk::OwnsIdleSlot(handle)) return;
    handle->handler = nullptr;
    handle->user = 0;
}

extern "C" ZK_API int32_t ZK_CALL zkAddEventCallback(EventCallback callback) {
    for (EventCallback& slot : zk::g_eventCallbacks) {
        if (!slot) {
            slot = callback;
            return ZK_OK;
        }
    }
    return ZK_ERR_CALLBACKS_FULL;
}
