#pragma once

#include <string_view>

#include <KRVQTProcessClient/Media.h>

#include "ExitStatus.h"
#include "Options.h"

namespace krvqt {

/// Reports the failure of a command that writes no file, and returns its exit status. what: name of the command.
ExitStatus questionFailed(std::string_view what, const krv::Failure& failure, const CommonOptions& common);

}  // namespace krvqt
