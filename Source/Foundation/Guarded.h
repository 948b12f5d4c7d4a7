#pragma once

#include <functional>
#include <type_traits>
#include <utility>

#include <KRVQTProcessClient/Foundation/Mutex.h>

namespace krv {

/// A value and the mutex that guards it, for a field that changes on its own. Fields that change together share a
/// Mutex instead. Thread-safe.
template <typename T>
class Guarded {
public:
    Guarded() = default;
    explicit Guarded(T value)
        : value_(std::move(value)) {}
    Guarded(const Guarded&) = delete;
    Guarded& operator=(const Guarded&) = delete;

    /// Returns a copy.
    [[nodiscard]] T get() const {
        const LockGuard lock(mutex_);
        return value_;
    }

    /// Replaces the value. The old one is destroyed after the mutex has been released, so its destructor may use this
    /// object.
    void set(T value) { (void)exchange(std::move(value)); }

    /// Replaces the value and returns the old one.
    T exchange(T value) {
        const LockGuard lock(mutex_);
        std::swap(value_, value);
        return value;
    }

    /// Calls the function with a reference to the value, under the mutex, and returns its result. The function must
    /// not keep the reference, and must not use this object. What it throws propagates.
    template <typename Function>
    auto with(Function&& function) {
        static_assert(!std::is_reference_v<std::invoke_result_t<Function, T&>>, "a reference would outlive the lock");
        const LockGuard lock(mutex_);
        return std::invoke(std::forward<Function>(function), value_);
    }
    template <typename Function>
    auto with(Function&& function) const {
        static_assert(!std::is_reference_v<std::invoke_result_t<Function, const T&>>,
                      "a reference would outlive the lock");
        const LockGuard lock(mutex_);
        return std::invoke(std::forward<Function>(function), value_);
    }

private:
    mutable Mutex mutex_;
    T value_ KRV_GUARDED_BY(mutex_){};
};

}  // namespace krv
