#pragma once

#include <exception>
#include <string>

namespace krv::media {

/// Why an operation failed, in the numbers that the server's replies carry.
enum class FailureCode : int {
    UnusableSource = 4,         ///< not media, empty, or too damaged
    UnwritableDestination = 5,  ///< the output could not be written
    Unsupported = 6,            ///< container, codec, quality or setting; the reason names it
    Internal = 8,               ///< a failure that neither the file nor the request explains
    BadArgument = 9,            ///< an argument of the wrong kind
};

/// Thrown by every operation of this library. The place that finds the problem knows the code and the cause;
/// the operation adds the file it is about (see about()), from which the sentence for a person is made.
class Failure : public std::exception {
public:
    Failure(FailureCode code, std::string reason);

    [[nodiscard]] int code() const noexcept { return static_cast<int>(code_); }
    /// A sentence for a person that names the file.
    [[nodiscard]] const std::string& description() const noexcept { return description_; }
    /// The cause.
    [[nodiscard]] const std::string& reason() const noexcept { return reason_; }
    /// The path of the file that is meant, as it was given; empty until about() was called.
    [[nodiscard]] const std::string& path() const noexcept { return path_; }
    [[nodiscard]] const char* what() const noexcept override { return text_.c_str(); }

    /// Names the file: the source for an unusable source or an internal failure, else the destination.
    void about(const std::string& source, const std::string& destination);

private:
    FailureCode code_;
    std::string reason_;
    std::string path_;
    std::string description_;
    std::string text_;
};

/// FFmpeg's own text for one of its error numbers.
[[nodiscard]] std::string errorText(int averror);

/// For the result of an FFmpeg call that may lack memory: std::bad_alloc for AVERROR(ENOMEM), otherwise a
/// Failure whose reason is the last meaningful line of FFmpeg's log, or failing that the error number's text.
[[noreturn]] void fail(FailureCode code, int averror, const std::string& attempt);

}  // namespace krv::media
