#pragma once

#include <mutex>

/// Attributes of Clang's thread-safety analysis: the lock of a member, and the locks that a function requires.
#if defined(__clang__)
#define KRV_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define KRV_THREAD_ATTRIBUTE(x)
#endif
#define KRV_CAPABILITY(x) KRV_THREAD_ATTRIBUTE(capability(x))
#define KRV_SCOPED_CAPABILITY KRV_THREAD_ATTRIBUTE(scoped_lockable)
#define KRV_GUARDED_BY(x) KRV_THREAD_ATTRIBUTE(guarded_by(x))
#define KRV_REQUIRES(...) KRV_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define KRV_EXCLUDES(...) KRV_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define KRV_ACQUIRE(...) KRV_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define KRV_RELEASE(...) KRV_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))

namespace krv {

/// A standard mutex (std::mutex or std::recursive_mutex) with the attributes of the analysis. Meets BasicLockable, so
/// std::condition_variable_any can wait on it.
template <typename Underlying>
class KRV_CAPABILITY("mutex") AnnotatedMutex {
public:
    void lock() KRV_ACQUIRE() { mutex_.lock(); }
    void unlock() KRV_RELEASE() { mutex_.unlock(); }

private:
    Underlying mutex_;
};

using Mutex = AnnotatedMutex<std::mutex>;
using RecursiveMutex = AnnotatedMutex<std::recursive_mutex>;

/// Locks a mutex until the end of the scope.
template <typename M>
class KRV_SCOPED_CAPABILITY LockGuard {
public:
    explicit LockGuard(M& mutex) KRV_ACQUIRE(mutex)
        : mutex_(mutex) {
        mutex_.lock();
    }
    ~LockGuard() KRV_RELEASE() { mutex_.unlock(); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

private:
    M& mutex_;
};

}  // namespace krv
