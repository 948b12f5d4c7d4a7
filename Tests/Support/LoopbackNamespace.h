#pragma once

#include <string>

namespace krv::test {

/// Moves the calling process, which must have one thread only, into a network namespace of its own (and a user
/// namespace, when it is not root's) in which nothing but the loopback interface is up. Nothing that the process does
/// on the network meets anything else then. Returns an empty text, or why it failed.
[[nodiscard]] std::string enterLoopbackNamespace();

/// Runs a command line of the shell and returns its exit status.
int runShell(const std::string& command);

}  // namespace krv::test
