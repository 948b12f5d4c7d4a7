#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace krv::server {

/// Limits of a worker process.
struct WorkerLimits {
    /// Writable private memory in bytes: heap, stacks and mappings.
    std::uint64_t memory = memoryForThisMachine();
    /// Open descriptors. A merge needs one per source.
    std::uint64_t descriptors = 1100;

    /// Returns half of the machine's memory, at least 1 GiB and at most 8 GiB.
    [[nodiscard]] static std::uint64_t memoryForThisMachine();
};

/// Confines the calling process permanently to the descriptors that it holds, memory and processor time. Afterwards it
/// cannot open a path, create a socket, execute a program, inspect or signal another process, or gain privileges. Call it
/// once, before any untrusted byte is read and while there is one thread.
///
/// Skips protections that the kernel lacks and returns a phrase for each of them.
std::vector<std::string> enterSandbox(const WorkerLimits& limits = {});

/// Returns the phrases that enterSandbox() would return on this machine. Changes nothing.
[[nodiscard]] std::vector<std::string> missingForSandbox();

}  // namespace krv::server
