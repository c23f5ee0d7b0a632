// A mutex whose rules clang checks (-Wthread-safety): what it guards is said beside the member, what needs it
// held beside the function. Other compilers ignore the annotations.
// https://clang.llvm.org/docs/ThreadSafetyAnalysis.html
#pragma once

#include <mutex>

#ifdef __clang__
#define UGS_THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define UGS_THREAD_ATTRIBUTE(attribute)
#endif
#define UGS_GUARDED_BY(mutex) UGS_THREAD_ATTRIBUTE(guarded_by(mutex))
#define UGS_REQUIRES(mutex) UGS_THREAD_ATTRIBUTE(requires_capability(mutex))
#define UGS_EXCLUDES(mutex) UGS_THREAD_ATTRIBUTE(locks_excluded(mutex))

class UGS_THREAD_ATTRIBUTE(capability("mutex")) Mutex {
 public:
  void Lock() UGS_THREAD_ATTRIBUTE(acquire_capability()) { mutex_.lock(); }
  void Unlock() UGS_THREAD_ATTRIBUTE(release_capability()) { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

class UGS_THREAD_ATTRIBUTE(scoped_lockable) MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) UGS_THREAD_ATTRIBUTE(acquire_capability(mutex)) : mutex_(mutex) {
    mutex_.Lock();
  }
  ~MutexLock() UGS_THREAD_ATTRIBUTE(release_capability()) { mutex_.Unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};
