#pragma once

#include <string>

namespace krv::test {

/// Runs a shell command and returns its exit status, -1 if a signal killed it.
int runShell(const std::string& command);

}  // namespace krv::test
