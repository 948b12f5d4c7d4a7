#pragma once

#include <exception>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// The system's exception: a name by which callers distinguish causes, and a reason for people.
///
/// Operations that catch "the platform's exception" catch only this class. A std::bad_alloc or an application's own
/// exception propagates through them.
class KRV_EXPORT Exception : public std::exception {
public:
    Exception(std::string name, std::string reason);
    ~Exception() override;
    Exception(const Exception&) = default;
    Exception& operator=(const Exception&) = default;

    [[nodiscard]] const std::string& name() const noexcept { return name_; }
    [[nodiscard]] const std::string& reason() const noexcept { return reason_; }

    /// Returns the text for log lines: the reason.
    [[nodiscard]] const std::string& description() const noexcept { return reason_; }

    /// Returns "name: reason", for a terminate handler or a debugger.
    [[nodiscard]] const char* what() const noexcept override { return what_.c_str(); }

private:
    std::string name_;
    std::string reason_;
    std::string what_;
};

/// Name of the exception for an invalid argument or message, such as a call to an object that no longer exists or a
/// value that cannot be archived.
inline constexpr std::string_view kInvalidArgumentException = "NSInvalidArgumentException";

/// Name of the exception for bytes that are not a valid archive.
inline constexpr std::string_view kMalformedArchiveException = "NSInvalidUnarchiveOperationException";

}  // namespace krv
