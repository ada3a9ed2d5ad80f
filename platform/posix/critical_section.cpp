// Critical sections: a recursive pthread mutex held in the caller's storage,
// re-entrant by the owning thread like its Windows counterpart; condition
// variables: a pthread condition variable beside it.
#include "platform/posix/posix_internal.h"

#include <pthread.h>

namespace zk::os {
namespace {

static_assert(sizeof(pthread_mutex_t) <= sizeof(CriticalSection::storage),
              "a pthread mutex must fit a critical section's storage");
static_assert(alignof(pthread_mutex_t) <= alignof(CriticalSection),
              "a critical section's storage must be aligned for a pthread mutex");
static_assert(sizeof(pthread_cond_t) <= sizeof(ConditionVariable::storage) &&
                  alignof(pthread_cond_t) <= alignof(ConditionVariable),
              "a pthread condition variable must fit a condition variable's storage");

pthread_cond_t* CondOf(ConditionVariable* cv) {
    return reinterpret_cast<pthread_cond_t*>(cv->storage);
}

pthread_mutex_t* MutexOf(CriticalSection* cs) {
    return reinterpret_cast<pthread_mutex_t*>(cs->storage);
}

} // namespace

void CriticalSectionInit(CriticalSection* cs) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(MutexOf(cs), &attr);
    pthread_mutexattr_destroy(&attr);
}

void CriticalSectionDelete(CriticalSection* cs) {
    pthread_mutex_destroy(MutexOf(cs));
}

void CriticalSectionEnter(CriticalSection* cs) {
    pthread_mutex_lock(MutexOf(cs));
}

void CriticalSectionLeave(CriticalSection* cs) {
    pthread_mutex_unlock(MutexOf(cs));
}

void ConditionVariableInit(ConditionVariable* cv) {
    pthread_cond_init(CondOf(cv), nullptr);
}

void ConditionVariableDelete(ConditionVariable* cv) {
    pthread_cond_destroy(CondOf(cv));
}

void ConditionVariableWait(ConditionVariable* cv, CriticalSection* cs) {
    pthread_cond_wait(CondOf(cv), MutexOf(cs));
}

void ConditionVariableWakeAll(ConditionVariable* cv) {
    pthread_cond_broadcast(CondOf(cv));
}

} // namespace zk::os
