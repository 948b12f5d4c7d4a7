#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// Why a job has no result. Every text is fit to be shown to a person. Immutable.
class KRV_EXPORT Failure {
public:
    enum class Kind : std::uint8_t {
        Unreachable,    ///< no media server could be found or started, or it takes no work now
        Cancelled,      ///< by the application, or by somebody who cancelled this process's work
        Stalled,        ///< no progress for longer than the job's stall time-out
        ServerLost,     ///< the server was lost in each of three attempts
        SourceMissing,  ///< the source does not exist, or cannot be read to its end
        NotMedia,       ///< the source is not a movie, is empty or too damaged, or lacks a required track
        Destination,    ///< the destination cannot be written, or is the source
        Unsupported,    ///< a container, codec or setting that is not supported, or would lose a track (`strict`)
        NoSpace,        ///< no space left for the destination
        Denied,         ///< this user may not read the source or write the destination
        BadArgument,    ///< an option is invalid, or a function was called where it cannot work
        WorkerDied,     ///< the file made the process that worked on it crash, or took all its memory or time
        Internal,       ///< a defect of the library or of the server
    };

    struct Details {
        /// A complete sentence that names the file and the problem.
        std::string message{};
        /// The technical cause, such as "Permission denied"; may be empty.
        std::string cause{};
        /// A remedy for a person to try, such as "Choose another destination."; empty if nothing is known to help.
        std::string suggestion{};
        /// Absolute path of the file concerned; may be empty.
        std::filesystem::path file{};
        /// The media server's error code (see OperationErrorCode), 0 if the failure was not reported by the server.
        std::int64_t code = 0;
    };

    Failure(Kind kind, Details details);

    [[nodiscard]] Kind kind() const noexcept { return kind_; }
    [[nodiscard]] const std::string& message() const noexcept { return details_.message; }
    [[nodiscard]] const std::string& cause() const noexcept { return details_.cause; }
    [[nodiscard]] const std::string& suggestion() const noexcept { return details_.suggestion; }
    [[nodiscard]] const std::filesystem::path& file() const noexcept { return details_.file; }
    [[nodiscard]] std::int64_t code() const noexcept { return details_.code; }

    /// Returns whether the same job may well succeed later without a change to its files or options: if the server could
    /// not be reached or was lost.
    [[nodiscard]] bool isTemporary() const noexcept { return kind_ == Kind::Unreachable || kind_ == Kind::ServerLost; }

    /// Returns the name of a kind, such as "NoSpace". For logs and for results in text form.
    [[nodiscard]] static std::string_view nameOf(Kind kind) noexcept;

private:
    Kind kind_;
    Details details_;
};

}  // namespace krv
