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
#define UGS_ACQUIRES(mutex) UGS_THREAD_ATTRIBUTE(acquire_capability(mutex))
#define UGS_RELEASES(mutex) UGS_THREAD_ATTRIBUTE(release_capability(mutex))
#define UGS_EXCLUDES(mutex) UGS_THREAD_ATTRIBUTE(locks_excluded(mutex))

namespace ugs {

class UGS_THREAD_ATTRIBUTE(capability("mutex")) Mutex {
 public:
  void Lock() UGS_THREAD_ATTRIBUTE(acquire_capability()) { mutex_.lock(); }
  [[nodiscard]] bool TryLock() UGS_THREAD_ATTRIBUTE(try_acquire_capability(true)) {
    return mutex_.try_lock();
  }
  void Unlock() UGS_THREAD_ATTRIBUTE(release_capability()) { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

class UGS_THREAD_ATTRIBUTE(scoped_lockable) MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) UGS_ACQUIRES(mutex) : mutex_(mutex) { mutex_.Lock(); }
  // Of one that this thread has locked.
  MutexLock(Mutex& mutex, std::adopt_lock_t) UGS_REQUIRES(mutex) : mutex_(mutex) {}
  ~MutexLock() UGS_THREAD_ATTRIBUTE(release_capability()) { mutex_.Unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace ugs
