#pragma once

#include <exception>
#include <string>
#include <string_view>

#include <MediaServer/Protocol/Failure.h>

namespace krv::media {

using server::FailureCause;

/// Thrown by every operation of this library that fails, except for a lack of memory, which is std::bad_alloc. The code
/// that finds the problem fills in the fields; the server puts them into words.
class Failure : public std::exception, public server::Failure {
public:
    explicit Failure(server::Failure failure);

    /// Returns the cause's number, the subject, the detail and the reason, for a debugger.
    [[nodiscard]] const char* what() const noexcept override { return text_.c_str(); }

private:
    std::string text_;
};

/// Reports a failed FFmpeg call. attempt: what was being done, as in "opening the file". Throws std::bad_alloc for
/// AVERROR(ENOMEM). Otherwise throws a Failure. Its reason is the attempt and the last meaningful line of FFmpeg's log,
/// or the text of the error number if nothing was logged.
[[noreturn]] void fail(FailureCause cause, int averror, std::string_view attempt, std::string subject = {});

}  // namespace krv::media
