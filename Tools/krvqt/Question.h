#pragma once

#include <string>
#include <string_view>

#include <KRVQTProcessClient/Media.h>

#include "ExitStatus.h"
#include "Options.h"

namespace krvqt {

/// Reports the failure of a command that writes no file, and returns its exit status. what: name of the command.
/// path: the file that it concerns, for JSON; may be empty.
ExitStatus questionFailed(std::string_view what, const krv::Failure& failure, const CommonOptions& common,
                          const std::string& path = {});

}  // namespace krvqt
