#pragma once

#include <exception>
#include <functional>
#include <type_traits>
#include <utility>
#include <variant>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Jobs/Failure.h>

namespace krv {

/// Thrown by Result::value() if the result is a failure.
class KRV_EXPORT BadResultAccess final : public std::exception {
public:
    explicit BadResultAccess(Failure failure);
    ~BadResultAccess() override;
    /// Returns the failure's message.
    [[nodiscard]] const char* what() const noexcept override;
    [[nodiscard]] const Failure& error() const noexcept { return failure_; }

private:
    Failure failure_;
};

/// The outcome of a job: a value, or the reason why there is none. Its members have the names and the meaning of those
/// of std::expected<T, Failure>.
template <typename T>
class [[nodiscard]] Result {
public:
    using value_type = T;
    using error_type = Failure;

    Result(T value)
        : either_(std::in_place_index<0>, std::move(value)) {}
    Result(Failure failure)
        : either_(std::in_place_index<1>, std::move(failure)) {}

    [[nodiscard]] bool has_value() const noexcept { return either_.index() == 0; }
    [[nodiscard]] explicit operator bool() const noexcept { return has_value(); }

    /// Throws BadResultAccess if there is no value.
    [[nodiscard]] const T& value() const& {
        if (!has_value()) {
            throw BadResultAccess(error());
        }
        return **this;
    }
    [[nodiscard]] T&& value() && {
        if (!has_value()) {
            throw BadResultAccess(error());
        }
        return *std::move(*this);
    }

    // There must be a value.
    [[nodiscard]] const T& operator*() const& noexcept { return *std::get_if<0>(&either_); }
    [[nodiscard]] T& operator*() & noexcept { return *std::get_if<0>(&either_); }
    [[nodiscard]] T&& operator*() && noexcept { return std::move(*std::get_if<0>(&either_)); }
    [[nodiscard]] const T* operator->() const noexcept { return std::get_if<0>(&either_); }
    [[nodiscard]] T* operator->() noexcept { return std::get_if<0>(&either_); }

    // There must be no value.
    [[nodiscard]] const Failure& error() const& noexcept { return *std::get_if<1>(&either_); }
    [[nodiscard]] Failure&& error() && noexcept { return std::move(*std::get_if<1>(&either_)); }

    template <typename U>
    [[nodiscard]] T value_or(U&& other) const& {
        return has_value() ? **this : static_cast<T>(std::forward<U>(other));
    }
    template <typename U>
    [[nodiscard]] T value_or(U&& other) && {
        return has_value() ? *std::move(*this) : static_cast<T>(std::forward<U>(other));
    }

    /// Returns what the function, which returns a Result, makes of the value; else the failure.
    template <typename Function>
    [[nodiscard]] auto and_then(Function&& function) const {
        using Next = std::remove_cvref_t<std::invoke_result_t<Function, const T&>>;
        return has_value() ? std::invoke(std::forward<Function>(function), **this) : Next(error());
    }
    /// Returns a Result of what the function makes of the value; else the failure.
    template <typename Function>
    [[nodiscard]] auto transform(Function&& function) const {
        using Next = Result<std::remove_cvref_t<std::invoke_result_t<Function, const T&>>>;
        return has_value() ? Next(std::invoke(std::forward<Function>(function), **this)) : Next(error());
    }
    /// Returns the value; else what the function, which returns a Result<T>, makes of the failure.
    template <typename Function>
    [[nodiscard]] Result or_else(Function&& function) const {
        return has_value() ? *this : std::invoke(std::forward<Function>(function), error());
    }

private:
    std::variant<T, Failure> either_;
};

}  // namespace krv
