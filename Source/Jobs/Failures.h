#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Error.h>
#include <KRVQTProcessClient/Jobs/Failure.h>
#include <KRVQTProcessClient/Platform/Clock.h>

/// Makes the failures of jobs, with the sentences that people read. activity is the beginning of a sentence, such as
/// "Converting holiday.mov".
namespace krv {

/// Returns the failure for an error that the server has reported.
[[nodiscard]] Failure failureFrom(const Error& error);

[[nodiscard]] Failure cancelled(std::string_view activity, const std::filesystem::path& file);
/// after: how long there was no progress.
[[nodiscard]] Failure stalled(std::string_view activity, const std::filesystem::path& file, Clock::Duration after);
[[nodiscard]] Failure serverLost(std::string_view activity, const std::filesystem::path& file, std::string cause);

/// No server can be started. cause: why not.
[[nodiscard]] Failure cannotStart(std::string cause);
/// No server is running, and none may be launched.
[[nodiscard]] Failure noServer();
/// A server is running, and cannot be talked to. cause: why not.
[[nodiscard]] Failure noConnection(std::string cause);
/// No server has responded in time. cause: what was found.
[[nodiscard]] Failure noResponse(Clock::Duration after, std::string cause);

}  // namespace krv
