#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace krv::server {

/// What a worker may use.
struct WorkerLimits {
    /// Memory that it may write to, in bytes: heap, stacks, everything private. Half of the machine's, but not below
    /// 1 GiB and not above 8 GiB.
    std::uint64_t memory = memoryForThisMachine();
    /// Descriptors open at a time: a merge is handed as many as it has sources.
    std::uint64_t descriptors = 1100;

    [[nodiscard]] static std::uint64_t memoryForThisMachine();
};

/// Shuts the calling process in for good: afterwards it can use the descriptors that it holds, memory and processor
/// time, and nothing else. No path can be opened, no socket made, no program executed, no other process looked into or
/// signalled, and no privilege gained. Call it once, before any hostile byte is read and while there is one thread.
///
/// What the kernel does not offer is left out. Returns what was, a phrase for each.
std::vector<std::string> enterSandbox(const WorkerLimits& limits = {});

/// What enterSandbox would have to leave out here. Changes nothing.
[[nodiscard]] std::vector<std::string> missingForSandbox();

}  // namespace krv::server
