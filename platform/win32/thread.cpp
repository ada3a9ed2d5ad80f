// Operating-system threads and the library's current-thread slot.
//
// CreateThread wants a stdcall entry that takes one pointer; the library's
// entries are plain functions. A fixed table of start records carries the
// entry and its parameter to the new thread: a record is taken when the thread
// is created and handed back by the thread itself as soon as it has copied
// them, so records are held only between creation and the first instant the
// thread runs. Records are taken and given back with atomic flags, no lock.
#include "platform/platform.h"
#include "platform/win32/library_state.h"

#include <atomic>

namespace zk::os {

namespace {

struct StartRecord {
    std::atomic<bool> taken{false};
    ThreadEntry entry = nullptr;
    void* parameter = nullptr;
};

constexpr int kStartRecords = 128;
StartRecord g_startRecords[kStartRecords];

StartRecord* TakeStartRecord() {
    for (StartRecord& record : g_startRecords) {
        bool expected = false;
        if (!record.taken.load(std::memory_order_relaxed) &&
            record.taken.compare_exchange_strong(expected, true, std::memory_order_acquire))
            return &record;
    }
    return nullptr;
}

void GiveBackStartRecord(StartRecord* record) {
    record->taken.store(false, std::memory_order_release);
}

DWORD ZK_SYSTEM_CALLBACK ThreadStart(LPVOID parameter) {
    StartRecord* record = static_cast<StartRecord*>(parameter);
    ThreadEntry entry = record->entry;
    void* entryParameter = record->parameter;
    GiveBackStartRecord(record);
    return entry(entryParameter);
}

} // namespace

Handle ThreadCreateSuspended(uint32_t stackSize, ThreadEntry entry, void* parameter) {
    if (!entry) return nullptr;
    StartRecord* record = TakeStartRecord();
    if (!record) return nullptr;
    record->entry = entry;
    record->parameter = parameter;
    HANDLE thread =
        CreateThread(nullptr, stackSize, ThreadStart, record, CREATE_SUSPENDED, nullptr);
    if (!thread) GiveBackStartRecord(record);
    return thread;
}

Handle ThreadCreateReusable(uint32_t stackSize, int32_t priority, ThreadEntry entry,
                            void* parameter) {
    Handle thread = ThreadCreateSuspended(stackSize, entry, parameter);
    if (thread) SetThreadPriority(thread, priority);
    return thread;
}

void ThreadsPrepareReusable() {}

void CurrentThreadSetBulk() {}

uint32_t CurrentProcessor() {
    return GetCurrentProcessorNumber();
}

void ThreadsReleaseParked() {}

void ThreadSetPriority(Handle thread, int32_t priority) {
    if (thread) SetThreadPriority(thread, priority);
}

void ThreadResume(Handle thread) {
    if (thread) ResumeThread(thread);
}

int32_t CurrentThreadPriority() {
    int priority = GetThreadPriority(GetCurrentThread());
    return priority == THREAD_PRIORITY_ERROR_RETURN ? kThreadPriorityNormal : priority;
}

void* CurrentThreadSlotGet() {
    DWORD index = win32::CurrentThreadSlotIndex();
    return index == TLS_OUT_OF_INDEXES ? nullptr : TlsGetValue(index);
}

void CurrentThreadSlotSet(void* value) {
    DWORD index = win32::CurrentThreadSlotIndex();
    if (index != TLS_OUT_OF_INDEXES) TlsSetValue(index, value);
}

} // namespace zk::os
