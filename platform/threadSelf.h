// threadSelf.h -- pthread_self where a call costs more than the rest of the work.
//
// In line on both hosts, so the one ability that a conditional picks and not the build list.
#pragma once

#include <pthread.h>

#ifdef __APPLE__

// Here pthread_self is two instructions; a variable of the thread would take a call as well, and
// memory at its first use.

// The calling thread's identity.
inline pthread_t Platform_ThreadSelf() {
  return pthread_self();
}

// Whether Platform_ThreadSelf has returned `thread` to the calling thread.
inline bool Platform_IsThreadSelf(pthread_t thread) {
  return thread == pthread_self();
}

#else

// A thread keeps its own identity, so that finding it is one load.  glibc has it behind a call,
// which takes a seventh of the time that a free lock needs to be acquired and released.

namespace threadSelf {

// 0, which is no thread's identity: not asked yet.  Initial-exec, because the model for libraries
// that are loaded later would be a call again.
inline constinit thread_local pthread_t self __attribute__((tls_model("initial-exec"))) = 0;

[[gnu::cold, gnu::noinline]] inline pthread_t Ask() {
  return self = pthread_self();
}

}  // namespace threadSelf

// The calling thread's identity.
inline pthread_t Platform_ThreadSelf() {
  const pthread_t self = threadSelf::self;
  return self != 0 ? self : threadSelf::Ask();
}

// Whether Platform_ThreadSelf has returned `thread` to the calling thread.
inline bool Platform_IsThreadSelf(pthread_t thread) {
  return thread == threadSelf::self;
}

#endif
