// threadSelf.h -- which thread is running, where the call of pthread_self costs more than the rest of the
// work.
//
// Inline on both hosts, so a conditional picks the implementation here, not the build list.
#pragma once

#include <pthread.h>

#include <bit>

// The calling thread's identity: different from that of every other living thread, and never all
// ones.  After fork(2) the child's thread has the identity of the thread that called fork.
inline pthread_t Platform_ThreadSelf() {
#ifdef __APPLE__
  return pthread_self();  // two instructions
#else
  // A register.  glibc has pthread_self behind a call, which takes a seventh of the time that a free
  // lock needs to be acquired and released.
  return std::bit_cast<pthread_t>(__builtin_thread_pointer());
#endif
}
