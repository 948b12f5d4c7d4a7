#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <KRVQTProcessClient/Platform/ProcessTable.h>
#include <KRVQTProcessClient/Platform/ServiceRecord.h>

namespace krv {

/// Returns the entries by which a publisher identifies itself in the text record of its service: "pid=", "start=",
/// "pidns=" and "version=" (see ServiceRecord).
///
/// A publisher that is killed cannot withdraw its announcement, which stays in the caches of others for two minutes. If
/// another program takes the port in that time, only these entries show that the publisher is dead.
[[nodiscard]] std::vector<std::string> publisherRecord(const ServiceRecord& record);

/// Returns whether the text names a process that has exited or is not in the table. False if the text names no process
/// or is malformed.
[[nodiscard]] bool publisherIsDead(std::span<const std::string> text, const ProcessTable& processes);

/// Returns whether the text names a pid namespace other than this one. A server there cannot see our process.
[[nodiscard]] bool publisherIsElsewhere(std::span<const std::string> text, std::uint64_t pidNamespace);

/// Returns the publisher's version, empty if the text does not name it.
[[nodiscard]] std::string_view publisherVersion(std::span<const std::string> text);

}  // namespace krv
