// Critical sections and the waitable kernel objects: semaphores, events and
// the one wait and close operations that serve every handle of this layer.
#include "platform/platform.h"

#include <windows.h>

namespace zk::os {

static_assert(sizeof(CRITICAL_SECTION) <= sizeof(CriticalSection::storage),
              "a CRITICAL_SECTION must fit the embedded storage");
static_assert(alignof(CRITICAL_SECTION) <= alignof(CriticalSection),
              "the embedded storage must be aligned for a CRITICAL_SECTION");

namespace {
CRITICAL_SECTION* Native(CriticalSection* cs) {
    return reinterpret_cast<CRITICAL_SECTION*>(cs->storage);
}
} // namespace

void CriticalSectionInit(CriticalSection* cs) {
    InitializeCriticalSection(Native(cs));
}
void CriticalSectionDelete(CriticalSection* cs) {
    DeleteCriticalSection(Native(cs));
}
void CriticalSectionEnter(CriticalSection* cs) {
    EnterCriticalSection(Native(cs));
}
void CriticalSectionLeave(CriticalSection* cs) {
    LeaveCriticalSection(Native(cs));
}

WaitResult Wait(Handle object, uint32_t timeoutMilliseconds) {
    if (!object) return WaitResult::Failed;
    switch (WaitForSingleObject(object, timeoutMilliseconds)) {
    case WAIT_OBJECT_0:
    case WAIT_ABANDONED: // a mutex whose holder died: the caller owns it now
        return WaitResult::Signaled;
    case WAIT_TIMEOUT:
        return WaitResult::Timeout;
    default:
        return WaitResult::Failed;
    }
}

void CloseHandle(Handle object) {
    if (object) ::CloseHandle(object);
}

Handle SemaphoreCreate(int32_t initialCount, int32_t maximumCount) {
    if (initialCount < 0 || maximumCount <= 0 || initialCount > maximumCount) return nullptr;
    return CreateSemaphoreA(nullptr, initialCount, maximumCount, nullptr);
}

bool SemaphoreRelease(Handle semaphore, int32_t count) {
    if (!semaphore || count <= 0) return false;
    return ReleaseSemaphore(semaphore, count, nullptr) != 0;
}

Handle EventCreate(bool manualReset, bool initiallySet) {
    return CreateEventA(nullptr, manualReset, initiallySet, nullptr);
}

void EventSet(Handle event) {
    if (event) SetEvent(event);
}

void EventReset(Handle event) {
    if (event) ResetEvent(event);
}

} // namespace zk::os
