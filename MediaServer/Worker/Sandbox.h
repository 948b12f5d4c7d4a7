#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace krv::server {

/// Limits of a worker process.
struct WorkerLimits {
    /// Writable private memory in bytes: heap, stacks and mappings.
    std::uint64_t memory = memoryOfEach(1);
    /// Open descriptors. A merge needs one per source.
    std::uint64_t descriptors = 1100;

    /// Returns an equal share of this machine's memory for each of so many workers, at least 1 GiB and at most 8 GiB.
    /// So their sum is no more than the machine has, unless it has less than 1 GiB for each.
    [[nodiscard]] static std::uint64_t memoryOfEach(unsigned workers);
    /// The same for a machine with that many bytes of memory. Pure.
    [[nodiscard]] static std::uint64_t memoryOfEach(unsigned workers, std::uint64_t machine);
};

/// Makes the kernel kill this process before the desktop's when memory runs out. Call it before enterSandbox().
void volunteerForOutOfMemory();

/// The two kernel mechanisms of the sandbox. Each holds without the other as far as it goes: seccomp alone lets no path
/// be opened or changed. Tests enter one without the other.
struct SandboxLayers {
    bool landlock = true;
    bool seccomp = true;
};

/// Confines the calling process permanently to the descriptors that it holds, memory and processor time. Call it once,
/// before any untrusted byte is read, on the main thread, before other threads are started.
///
/// Afterwards the process cannot open, create, change, rename, lock or watch anything by path; make a socket, pipe,
/// memory file, timer or process; execute a program; inspect, signal, limit or reprioritise another process; leave its
/// process group or outlive its server; allocate writable memory beyond its limit, with a stack of at most 64 MiB
/// beside it; or gain privileges.
///
/// It can still use:
///   - reading, writing, mapping and truncating the descriptors that it holds, as they were opened. Sources are open for
///     reading, and their metadata cannot be changed.
///   - stat and statx, which reveal that a path exists, and its size, owner and times. The C library uses the
///     same calls for open descriptors, and a filter cannot tell them apart.
///   - the time, the load, the names and numbers of this machine, and the scheduling of other processes (sysinfo, uname,
///     getrusage, sched_getaffinity and the like), to read only.
///   - threads, which count against the user's process limit, and page tables, which count against no limit. Until it is
///     killed, a worker can use up kernel memory with them.
///   - the scheduling of its own memory (mbind, madvise), its own signals and threads, and processor time.
///
/// Skips protections that the kernel lacks and returns a phrase for each of them.
std::vector<std::string> enterSandbox(const WorkerLimits& limits = {}, SandboxLayers layers = {});

/// Confines the process from which workers are forked as enterSandbox() does, except that it can fork, make pipes and
/// signal its user's processes (where Landlock does not deny it), and that its children can enter their own sandbox.
void enterTemplateSandbox(const WorkerLimits& limits = {});

/// The features of this machine's kernel.
struct SandboxSupport {
    /// ABI version of Landlock, 0 if the kernel has none.
    long landlock = 0;
    bool seccomp = false;
};
[[nodiscard]] SandboxSupport sandboxSupport();

/// Returns the phrases that enterSandbox() would return with this support. Pure.
[[nodiscard]] std::vector<std::string> missingForSandbox(const SandboxSupport& support);

}  // namespace krv::server
