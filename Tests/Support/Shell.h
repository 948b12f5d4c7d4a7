#pragma once

#include <string>

namespace krv::test {

/// Runs a command line of the shell and returns its exit status; -1 when it was ended by a signal.
int runShell(const std::string& command);

}  // namespace krv::test
