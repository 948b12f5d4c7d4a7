#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <KRVQTProcessClient/Platform/ProcessTable.h>

namespace krv {

/// What a publisher says of itself in the text record of its service: "pid=" and "start=", which together name one
/// process for ever (see ProcessInfo).
///
/// A publisher that is killed cannot take its announcement back. It stays in the caches of others for two minutes, and
/// when another program takes the port meanwhile, nothing but this tells it from a living one.
[[nodiscard]] std::vector<std::string> publisherRecord(const ProcessInfo& process);

/// Whether the text names a process that does not live any more, or that is not to be seen in the table. A text that
/// names none, or not in this form, says nothing: false.
[[nodiscard]] bool publisherHasGone(std::span<const std::string> text, const ProcessTable& processes);

}  // namespace krv
