#pragma once

#include <mutex>

/// Clang's thread-safety analysis: which lock guards a member, and what a function expects to be held.
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

/// A standard mutex that the analysis knows as a capability. Underlying is std::mutex or
/// std::recursive_mutex. Meets BasicLockable, so std::condition_variable_any waits on it.
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

/// Holds a mutex for a scope.
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
