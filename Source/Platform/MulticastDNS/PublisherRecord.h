#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <KRVQTProcessClient/Platform/ProcessTable.h>

namespace krv {

/// Returns the entries by which a publisher identifies its process in the text record of its service: "pid=" and
/// "start=" (see ProcessInfo).
///
/// A publisher that is killed cannot withdraw its announcement, which stays in the caches of others for two minutes. If
/// another program takes the port in that time, only these entries show that the publisher is dead.
[[nodiscard]] std::vector<std::string> publisherRecord(const ProcessInfo& process);

/// Returns whether the text names a process that has exited or is not in the table. False if the text names no process
/// or is malformed.
[[nodiscard]] bool publisherIsDead(std::span<const std::string> text, const ProcessTable& processes);

}  // namespace krv
