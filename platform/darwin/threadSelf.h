// threadSelf.h -- pthread_self where a call costs more than the rest of the work.
//
// Here pthread_self is two instructions; a variable of the thread would take a call as well, and
// memory at its first use.
#pragma once

#include <pthread.h>

// The calling thread's identity.
inline pthread_t Platform_ThreadSelf() {
  return pthread_self();
}

// Whether Platform_ThreadSelf has returned `thread` to the calling thread.
inline bool Platform_IsThreadSelf(pthread_t thread) {
  return thread == pthread_self();
}
