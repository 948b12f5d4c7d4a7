// How media code is confined.
//
// A decoder that a hostile file has taken over can do whatever its process may do. A worker needs little: its descriptors
// (the sources, the unnamed output, the channel to the server), memory, threads and time. Therefore:
//
//   - no_new_privs: an executed program could not gain privileges. (None can be executed.)
//   - Landlock, with a rule set that has no rule: every access to the file system by path is denied, whatever the user
//     may do. No path needs to be allowed, because the server opens the files. Newer kernels also deny TCP, abstract
//     sockets and signals to other processes here.
//   - seccomp, for what Landlock does not cover: sockets of any kind, execution, new processes (threads are allowed),
//     inspection of other processes, and calls that have been used to attack kernels and that no codec makes. Denied
//     calls fail with EPERM, as on a system that does not permit them, so a library that tries an optional call
//     continues without it. clone3 fails with ENOSYS because a filter cannot read its arguments; the C library then uses
//     clone, whose flags a filter can check.
//   - Limits on writable memory and open descriptors; no core files. An allocation beyond the limit fails, and with it
//     the operation.
//
// The filter lists what is denied, not what is allowed. A list of allowed calls would be easier to reason about. But
// codecs and the C library make different calls on different processors and in different versions, and each call missing
// from the list would be a movie that cannot be converted.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>
#include <initializer_list>

#include <linux/landlock.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fmt/format.h>
#include <seccomp.h>

#include <MediaServer/Worker/Sandbox.h>

namespace krv::server {
namespace {

// Landlock.

/// The kernel's structure with all its present members. An older kernel is passed the first members only.
struct RuleSet {
    std::uint64_t fileSystem;
    std::uint64_t network;
    std::uint64_t scoped;
};

/// Returns every access that a version of Landlock can deny. Each version can deny all that earlier ones can.
RuleSet everythingDeniable(long version) {
    RuleSet all{(1ULL << 13) - 1, 0, 0};
    constexpr std::uint64_t kRefer = 1ULL << 13;
    constexpr std::uint64_t kTruncate = 1ULL << 14;
    constexpr std::uint64_t kDeviceControl = 1ULL << 15;
    constexpr std::uint64_t kBindAndConnectTCP = 3;
    constexpr std::uint64_t kAbstractSocketsAndSignals = 3;
    all.fileSystem |= version >= 2 ? kRefer : 0;
    all.fileSystem |= version >= 3 ? kTruncate : 0;
    all.network = version >= 4 ? kBindAndConnectTCP : 0;
    all.fileSystem |= version >= 5 ? kDeviceControl : 0;
    all.scoped = version >= 6 ? kAbstractSocketsAndSignals : 0;
    return all;
}

std::size_t sizeForVersion(long version) {
    return version >= 6 ? sizeof(RuleSet) : version >= 4 ? 2 * sizeof(std::uint64_t) : sizeof(std::uint64_t);
}

/// Returns the ABI version of Landlock, 0 if the kernel has none.
long landlockVersion() {
    return std::max(::syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION), 0L);
}

bool denyPaths() {
    const long version = landlockVersion();
    if (version == 0) {
        return false;
    }
    const RuleSet rules = everythingDeniable(version);
    const auto fd = static_cast<int>(::syscall(SYS_landlock_create_ruleset, &rules, sizeForVersion(version), 0));
    if (fd < 0) {
        return false;
    }
    const bool done = ::syscall(SYS_landlock_restrict_self, fd, 0) == 0;
    ::close(fd);
    return done;
}

// seccomp.

constexpr std::initializer_list<const char*> kDeniedCalls{
    // the network
    "socket", "connect", "bind", "listen", "accept", "accept4",
    // programs and processes
    "execve", "execveat", "fork", "vfork", "setns", "unshare", "pivot_root", "chroot", "mount", "umount2", "move_mount",
    "open_tree", "fsopen", "fsconfig", "fsmount", "fspick", "mount_setattr",
    // other processes
    "ptrace", "process_vm_readv", "process_vm_writev", "pidfd_open", "pidfd_getfd", "pidfd_send_signal", "kcmp",
    "process_madvise", "process_mrelease", "tkill",
    // files by other means than paths
    "open_by_handle_at", "name_to_handle_at", "quotactl", "quotactl_fd", "swapon", "swapoff", "acct",
    // the kernel itself
    "bpf", "perf_event_open", "userfaultfd", "io_uring_setup", "io_uring_enter", "io_uring_register", "keyctl",
    "add_key", "request_key", "init_module", "finit_module", "delete_module", "kexec_load", "kexec_file_load", "reboot",
    "personality", "modify_ldt", "iopl", "ioperm", "settimeofday", "clock_settime", "clock_adjtime", "adjtimex",
    "sethostname", "setdomainname", "syslog", "vhangup", "lookup_dcookie", "fanotify_init", "landlock_create_ruleset",
    "seccomp", "setuid", "setgid", "setreuid", "setregid", "setresuid", "setresgid", "setgroups", "capset",
    "memfd_secret",
    // shared memory and queues that others may have made
    "shmget", "shmat", "semget", "msgget", "mq_open"};

/// Returns a comparison with an argument of a call. The library's macros for this are not valid C++.
constexpr scmp_arg_cmp argument(unsigned index, scmp_compare comparison, scmp_datum_t a, scmp_datum_t b = 0) {
    return {index, comparison, a, b};
}

bool addRules(scmp_filter_ctx filter) {
    const std::uint32_t deny = SCMP_ACT_ERRNO(EPERM);
    for (const char* const name : kDeniedCalls) {
        const int number = ::seccomp_syscall_resolve_name(name);
        // Skips calls that this processor architecture does not have.
        if (number != __NR_SCMP_ERROR && ::seccomp_rule_add(filter, deny, number, 0) != 0) {
            return false;
        }
    }
    const auto self = static_cast<scmp_datum_t>(::getpid());
    // Allows threads, but not processes.
    return ::seccomp_rule_add(filter, SCMP_ACT_ERRNO(ENOSYS), SCMP_SYS(clone3), 0) == 0 &&
           ::seccomp_rule_add(filter, deny, SCMP_SYS(clone), 1, argument(0, SCMP_CMP_MASKED_EQ, CLONE_THREAD, 0)) ==
               0 &&
           // A process may signal itself, as abort() does, but no other process.
           ::seccomp_rule_add(filter, deny, SCMP_SYS(kill), 1, argument(0, SCMP_CMP_NE, self)) == 0 &&
           ::seccomp_rule_add(filter, deny, SCMP_SYS(tgkill), 1, argument(0, SCMP_CMP_NE, self)) == 0 &&
           // TIOCSTI injects input into a terminal.
           ::seccomp_rule_add(filter, deny, SCMP_SYS(ioctl), 1, argument(1, SCMP_CMP_MASKED_EQ, 0xFFFFFFFF, TIOCSTI)) ==
               0;
}

bool denyCalls() {
    const scmp_filter_ctx filter = ::seccomp_init(SCMP_ACT_ALLOW);
    if (!filter) {
        return false;
    }
    const bool done = addRules(filter) && ::seccomp_load(filter) == 0;
    ::seccomp_release(filter);
    return done;
}

bool seccompExists() {
    // Installs a filter from an invalid address. A kernel without filters fails before it reads the address.
    return ::prctl(PR_SET_SECCOMP, 2 /* SECCOMP_MODE_FILTER */, nullptr, 0, 0) != 0 && errno == EFAULT;
}

void limit(__rlimit_resource resource, std::uint64_t value) {
    const rlimit both{value, value};
    ::setrlimit(resource, &both);
}

constexpr const char* kNoLandlock = "no Landlock: a worker could open files by path";
constexpr const char* kNoSeccomp = "no seccomp filters: a worker could create sockets and execute programs";

}  // namespace

std::uint64_t WorkerLimits::memoryForThisMachine() {
    constexpr std::uint64_t kLeast = 1ULL << 30;
    constexpr std::uint64_t kMost = 8ULL << 30;
    const long pages = ::sysconf(_SC_PHYS_PAGES);
    const long size = ::sysconf(_SC_PAGESIZE);
    const std::uint64_t half =
        pages > 0 && size > 0 ? static_cast<std::uint64_t>(pages) / 2 * static_cast<std::uint64_t>(size) : kLeast;
    return std::clamp(half, kLeast, kMost);
}

std::vector<std::string> enterSandbox(const WorkerLimits& limits) {
    std::vector<std::string> missing;
    ::tzset();  // reads a file
    limit(RLIMIT_DATA, limits.memory);
    limit(RLIMIT_NOFILE, limits.descriptors);
    limit(RLIMIT_CORE, 0);
    ::prctl(PR_SET_DUMPABLE, 0);
    ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    if (!denyPaths()) {
        missing.emplace_back(kNoLandlock);
    }
    if (!denyCalls()) {
        missing.emplace_back(kNoSeccomp);
    }
    return missing;
}

std::vector<std::string> missingForSandbox() {
    std::vector<std::string> missing;
    if (landlockVersion() == 0) {
        missing.emplace_back(kNoLandlock);
    }
    if (!seccompExists()) {
        missing.emplace_back(kNoSeccomp);
    }
    return missing;
}

}  // namespace krv::server
