#include <cerrno>
#include <exception>
#include <utility>

#include <unistd.h>

#include <fmt/format.h>

#include <KRVQTProcessClient/Jobs/Failure.h>
#include <KRVQTProcessClient/Jobs/Failures.h>
#include <KRVQTProcessClient/Jobs/Result.h>
#include <KRVQTProcessClient/Operations/OperationErrors.h>

namespace krv {
namespace {

namespace fs = std::filesystem;
using Kind = Failure::Kind;

/// The server runs on this machine as this user, so what stops it from using a file shows here as well.
bool allows(const fs::path& file, int access) {
    return ::access(file.c_str(), access) == 0;
}

bool isThere(const fs::path& file) {
    return allows(file, F_OK) || errno != ENOENT;
}

std::string suggestionForSource(Kind kind, const fs::path& file) {
    if (kind == Kind::Denied) {
        return "Change the permissions of the file, so that you may read it.";
    }
    return isThere(file) ? "" : "Check the path.";
}

std::string suggestionForDestination(Kind kind, const fs::path& file) {
    const fs::path folder = file.parent_path();
    if (kind == Kind::NoSpace) {
        return "Make space for the file, or choose a destination on another disk.";
    }
    if (!isThere(folder)) {
        return fmt::format("Create the folder {}.", folder.string());
    }
    return kind == Kind::Denied ? "Choose a folder that you may write to." : "Choose another destination.";
}

/// Returns the kind for a system call that failed with this error number, else the given one.
Kind kindFor(std::int64_t errorNumber, Kind otherwise) {
    switch (errorNumber) {
    case EACCES:
    case EPERM:
    case EROFS:
        return Kind::Denied;
    case ENOSPC:
    case EDQUOT:
        return Kind::NoSpace;
    default:
        return otherwise;
    }
}

struct Verdict {
    Kind kind;
    std::string suggestion;
};

Verdict verdict(OperationErrorCode code, const fs::path& file, std::int64_t errorNumber) {
    switch (code) {
    case OperationErrorCode::CannotAcceptWork:
        return {Kind::Unreachable, "Try again when the media server has less to do."};
    case OperationErrorCode::UnknownOperation:
        return {Kind::ServerLost, "Try again."};
    case OperationErrorCode::UnreadableSource: {
        const Kind kind = kindFor(errorNumber, Kind::SourceMissing);
        return {kind, suggestionForSource(kind, file)};
    }
    case OperationErrorCode::UnusableSource:  // the message says what the file lacks
        return {Kind::NotMedia, ""};
    case OperationErrorCode::UnwritableDestination: {
        const Kind kind = kindFor(errorNumber, Kind::Destination);
        return {kind, suggestionForDestination(kind, file)};
    }
    case OperationErrorCode::Unsupported:
        return {Kind::Unsupported, "Choose another container, codec or setting."};
    case OperationErrorCode::WorkerFailed:
        return {Kind::WorkerDied, "Try again; if it fails again, the file is probably damaged."};
    case OperationErrorCode::Internal:
        return {Kind::Internal, ""};
    case OperationErrorCode::InvalidArgument:
        return {Kind::BadArgument, ""};
    case OperationErrorCode::SameFile:
        return {Kind::Destination, "Choose another destination."};
    }
    return {Kind::Internal, ""};
}

std::string secondsText(Clock::Duration duration) {
    return fmt::format("{:.0f} s", secondsFromDuration(duration));
}

}  // namespace

Failure::Failure(Kind kind, Details details)
    : kind_(kind)
    , details_(std::move(details)) {}

std::string_view Failure::nameOf(Kind kind) noexcept {
    switch (kind) {
    case Kind::Unreachable:
        return "Unreachable";
    case Kind::Cancelled:
        return "Cancelled";
    case Kind::Stalled:
        return "Stalled";
    case Kind::ServerLost:
        return "ServerLost";
    case Kind::SourceMissing:
        return "SourceMissing";
    case Kind::NotMedia:
        return "NotMedia";
    case Kind::Destination:
        return "Destination";
    case Kind::Unsupported:
        return "Unsupported";
    case Kind::NoSpace:
        return "NoSpace";
    case Kind::Denied:
        return "Denied";
    case Kind::BadArgument:
        return "BadArgument";
    case Kind::WorkerDied:
        return "WorkerDied";
    case Kind::Internal:
        break;
    }
    return "Internal";
}

BadResultAccess::BadResultAccess(Failure failure)
    : failure_(std::move(failure)) {}

BadResultAccess::~BadResultAccess() = default;

const char* BadResultAccess::what() const noexcept {
    return failure_.message().c_str();
}

Failure failureFrom(const Error& error) {
    const auto userInfo = error.userInfo();
    const fs::path file = userInfo ? (*userInfo)[kErrorFilePath].stringValue() : std::string();
    const std::int64_t number = userInfo ? (*userInfo)[kErrorNumber].integerValue() : 0;
    const bool fromServer = error.domain() == kMediaServerErrorDomain;
    const Verdict judged =
        fromServer ? verdict(static_cast<OperationErrorCode>(error.code()), file, number) : Verdict{Kind::Internal, ""};
    return {judged.kind,
            {.message = error.localizedDescription(),
             .cause = error.localizedFailureReason(),
             .suggestion = judged.suggestion,
             .file = file,
             .code = fromServer ? error.code() : 0}};
}

Failure cancelled(std::string_view activity, const fs::path& file) {
    return {Kind::Cancelled, {.message = fmt::format("{} was cancelled.", activity), .file = file}};
}

Failure stalled(std::string_view activity, const fs::path& file, Clock::Duration after) {
    return {Kind::Stalled,
            {.message = fmt::format("{} was given up, because it made no progress.", activity),
             .cause = fmt::format("no progress for {}", secondsText(after)),
             .suggestion = "Try again; if it stalls again, the disk or the network drive may not respond.",
             .file = file}};
}

Failure serverLost(std::string_view activity, const fs::path& file, std::string cause) {
    return {Kind::ServerLost,
            {.message = fmt::format("{} was given up, because the media server was lost repeatedly.", activity),
             .cause = std::move(cause),
             .suggestion = "Try again.",
             .file = file}};
}

Failure cannotStart(std::string cause) {
    return {Kind::Unreachable,
            {.message = "The media server could not be started.",
             .cause = std::move(cause),
             .suggestion = "Reinstall the application, which contains the media server."}};
}

Failure noServer() {
    return {Kind::Unreachable, {.message = "No media server is running."}};
}

Failure noConnection(std::string cause) {
    return {Kind::Unreachable,
            {.message = "The media server is running, but cannot be reached.",
             .cause = std::move(cause),
             .suggestion = "Close the application that has started it, or use the same network as that application."}};
}

Failure noResponse(Clock::Duration after, std::string cause) {
    return {Kind::Unreachable,
            {.message = fmt::format("The media server could not be reached within {}.", secondsText(after)),
             .cause = std::move(cause),
             .suggestion = "Try again."}};
}

}  // namespace krv
