// How media code is confined.
//
// A decoder that a hostile file has taken over can do whatever its process may do. A worker needs little: its
// descriptors (the sources, the unnamed output, the channel to the server), memory, threads and time. Therefore:
//
//   - no_new_privs: an executed program could not gain privileges. (None can be executed.)
//   - Landlock, with a rule set that has no rule: every access to the file system by path is denied, whatever the user
//     may do. No path needs to be allowed, because the server opens the files. Newer kernels also deny TCP, abstract
//     sockets and signals to other processes here. Older ones do not deny truncate, and none denies chmod, chown or
//     setxattr. A kernel may also lack Landlock. So it is the second line only.
//   - seccomp: every call that takes a path, except stat; sockets of any kind; execution; new processes (threads are
//     allowed); calls that affect other processes; memory that the limit does not count; and calls that have been used
//     to attack kernels and that no codec makes. Denied calls fail with EPERM, as on a system that does not permit them, so a
//     library that tries an optional call continues without it. clone3 fails with ENOSYS because a filter cannot read
//     its arguments; the C library then uses clone, whose flags a filter can check. Calls that are newer than the list
//     fail with ENOSYS too.
//   - Limits on writable memory, the stack, open descriptors and queued signals; no core files. An allocation beyond the
//     limit fails, and with it the operation.
//
// The filter lists what is denied, not what is allowed. A list of allowed calls would be easier to reason about. But
// codecs and the C library make different calls on different processors and in different versions, and each call
// missing from the list would be a movie that cannot be converted.
#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <span>
#include <string_view>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/landlock.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mman.h>
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
    // files by path: the server opens them
    "open", "openat", "openat2", "creat", "truncate", "truncate64", "link", "linkat", "symlink", "symlinkat", "unlink",
    "unlinkat", "rename", "renameat", "renameat2", "mkdir", "mkdirat", "rmdir", "mknod", "mknodat", "chdir", "fchdir",
    "chroot", "access", "faccessat", "faccessat2", "readlink", "readlinkat", "statfs", "statfs64", "uselib",
    "open_by_handle_at", "name_to_handle_at", "inotify_init", "inotify_init1", "inotify_add_watch", "fanotify_init",
    "fanotify_mark",
    // what a file is besides its bytes, by path or by descriptor: the sources are the user's own files
    "chmod", "fchmod", "fchmodat", "chown", "chown32", "lchown", "lchown32", "fchown", "fchown32", "fchownat", "utime",
    "utimes", "utimensat", "utimensat_time64", "futimesat", "setxattr", "lsetxattr", "fsetxattr", "getxattr",
    "lgetxattr", "fgetxattr", "listxattr", "llistxattr", "flistxattr", "removexattr", "lremovexattr", "fremovexattr",
    "flock",
    // sockets, and other ways to pass bytes or descriptors on
    "socket", "socketpair", "connect", "bind", "listen", "accept", "accept4", "pipe", "pipe2", "splice", "tee",
    "vmsplice",
    // memory beside the limit
    "memfd_create", "memfd_secret", "shmget", "shmat", "shmctl", "shmdt", "semget", "semctl", "semop", "semtimedop",
    "semtimedop_time64", "msgget", "msgctl", "msgsnd", "msgrcv", "mq_open", "mq_unlink", "io_setup",
    // of which the user, not the process, has a limited number
    "epoll_create", "epoll_create1",
    // programs, processes and what they belong to
    "execve", "execveat", "fork", "vfork", "setns", "unshare", "setsid", "setpgid",
    // other processes
    "ptrace", "process_vm_readv", "process_vm_writev", "pidfd_open", "pidfd_getfd", "pidfd_send_signal", "kcmp",
    "process_madvise", "process_mrelease", "get_robust_list", "tkill", "rt_sigqueueinfo", "rt_tgsigqueueinfo",
    "setpriority", "ioprio_set", "sched_setscheduler", "sched_setparam", "sched_setattr", "sched_setaffinity",
    "move_pages", "migrate_pages",
    // the machine
    "sync", "syncfs", "quotactl", "quotactl_fd", "swapon", "swapoff", "acct", "pivot_root", "mount", "umount",
    "umount2", "move_mount", "open_tree", "fsopen", "fsconfig", "fsmount", "fspick", "mount_setattr", "bpf",
    "perf_event_open", "userfaultfd", "io_uring_setup", "io_uring_enter", "io_uring_register", "keyctl", "add_key",
    "request_key", "init_module", "finit_module", "delete_module", "kexec_load", "kexec_file_load", "reboot",
    "personality", "modify_ldt", "iopl", "ioperm", "settimeofday", "clock_settime", "clock_settime64", "clock_adjtime",
    "clock_adjtime64", "adjtimex", "sethostname", "setdomainname", "syslog", "vhangup", "lookup_dcookie",
    "landlock_create_ruleset", "seccomp", "setuid", "setgid", "setreuid", "setregid", "setresuid", "setresgid",
    "setgroups", "capset",
    // No codec needs a device. On a file it would change flags, or clone and deduplicate blocks.
    "ioctl"};

/// Of these, what the template needs to fork a worker, and a worker to enter its own sandbox.
constexpr std::array<std::string_view, 5> kTemplateCalls{"pipe2", "vfork", "setpgid", "landlock_create_ruleset",
                                                         "seccomp"};

/// Calls from the first number on are newer than this list, so what they can do is not known. They fail as on a kernel
/// that does not have them; callers fall back. The numbers are the same on all processors. The last number leaves room
/// for the calls of many years.
constexpr int kFirstUnknownCall = 451;
constexpr int kLastUnknownCall = 599;

/// Denied commands of fcntl: owners that are sent signals, locks and leases, sizes of pipes. A worker may copy
/// descriptors and read and set their flags.
constexpr std::initializer_list<int> kDeniedFileCommands{
    F_SETLK,    F_SETLKW, F_OFD_SETLK, F_OFD_SETLKW, F_SETOWN,      F_SETOWN_EX,       F_SETSIG,
    F_SETLEASE, F_NOTIFY, F_ADD_SEALS, F_SETPIPE_SZ, F_SET_RW_HINT, F_SET_FILE_RW_HINT};

/// Denied commands of prctl: with them, a worker could outlive its server or let others look into it.
constexpr std::initializer_list<int> kDeniedProcessCommands{PR_SET_PDEATHSIG, PR_SET_DUMPABLE, PR_SET_PTRACER,
                                                            PR_SET_CHILD_SUBREAPER, PR_SET_MM};

/// The main thread's stack is at most this large.
constexpr rlim_t kLargestStack = rlim_t{64} << 20;

/// Returns an address below the main thread's stack and above everything else that is mapped. To be called on the main
/// thread. The kernel leaves a gap of at least 128 MiB there.
scmp_datum_t belowStack() {
    return reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0)) - kLargestStack;
}

/// Returns a comparison with an argument of a call. The library's macros for this are not valid C++.
constexpr scmp_arg_cmp argument(unsigned index, scmp_compare comparison, scmp_datum_t a, scmp_datum_t b = 0) {
    return {index, comparison, a, b};
}

/// The kernel reads 32 bits of an argument that is an int. A filter that compared 64 would miss one with others set.
constexpr scmp_arg_cmp intArgument(unsigned index, int value) {
    return argument(index, SCMP_CMP_MASKED_EQ, 0xFFFFFFFF, static_cast<std::uint32_t>(value));
}

class CallFilter {
public:
    CallFilter()
        : context_(::seccomp_init(SCMP_ACT_ALLOW)) {
        // A binary tree: the list is long, and every call passes it.
        complete_ = context_ && ::seccomp_attr_set(context_, SCMP_FLTATR_CTL_OPTIMIZE, 2) == 0;
    }
    ~CallFilter() { ::seccomp_release(context_); }
    CallFilter(const CallFilter&) = delete;
    CallFilter& operator=(const CallFilter&) = delete;

    void deny(int call, int errorNumber = EPERM) {
        complete_ = complete_ && ::seccomp_rule_add(context_, errno_(errorNumber), call, 0) == 0;
    }
    /// Denies the call if an argument is as described.
    void denyIf(int call, scmp_arg_cmp comparison) {
        complete_ = complete_ && ::seccomp_rule_add(context_, errno_(EPERM), call, 1, comparison) == 0;
    }
    [[nodiscard]] bool load() { return complete_ && ::seccomp_load(context_) == 0; }

    /// Returns the filter as the kernel's program, empty on failure. Needs memfd_create.
    [[nodiscard]] std::vector<sock_filter> compile() {
        const int file = complete_ ? ::memfd_create("filter", MFD_CLOEXEC) : -1;
        std::vector<sock_filter> program;
        if (file >= 0 && ::seccomp_export_bpf(context_, file) == 0) {
            const auto size = static_cast<std::size_t>(::lseek(file, 0, SEEK_END));
            program.resize(size / sizeof(sock_filter));
            if (::pread(file, program.data(), size, 0) != static_cast<ssize_t>(size)) {
                program.clear();
            }
        }
        ::close(file);
        return program;
    }

private:
    static std::uint32_t errno_(int number) { return SCMP_ACT_ERRNO(static_cast<std::uint32_t>(number)); }

    scmp_filter_ctx context_;
    bool complete_ = false;
};

enum class Stage { Template, Worker };

/// Adds what a worker must not do and its template must: starting processes, and what belongs to one process.
void denyProcesses(CallFilter& filter) {
    // Allows threads, but not processes.
    filter.deny(SCMP_SYS(clone3), ENOSYS);
    filter.denyIf(SCMP_SYS(clone), argument(0, SCMP_CMP_MASKED_EQ, CLONE_THREAD, 0));
    for (const int command : kDeniedProcessCommands) {
        filter.denyIf(SCMP_SYS(prctl), intArgument(0, command));
    }
}

void denyCalls(CallFilter& filter, Stage stage) {
    for (const char* const name : kDeniedCalls) {
        const bool needed = stage == Stage::Template &&
                            std::find(kTemplateCalls.begin(), kTemplateCalls.end(), name) != kTemplateCalls.end();
        const int number = ::seccomp_syscall_resolve_name(name);
        // Skips calls that this processor architecture does not have.
        if (!needed && number != __NR_SCMP_ERROR) {
            filter.deny(number);
        }
    }
    for (int number = kFirstUnknownCall; number <= kLastUnknownCall; ++number) {
        filter.deny(number, ENOSYS);
    }
    // The C library passes 0 for the calling process.
    filter.denyIf(SCMP_SYS(prlimit64), argument(0, SCMP_CMP_NE, 0));
    for (const int command : kDeniedFileCommands) {
        filter.denyIf(SCMP_SYS(fcntl), intArgument(1, command));
    }
    filter.denyIf(SCMP_SYS(sendto), argument(4, SCMP_CMP_NE, 0));
    // RLIMIT_DATA counts private memory only.
    constexpr scmp_datum_t kSharedAnonymous = MAP_SHARED | MAP_ANONYMOUS;
    filter.denyIf(SCMP_SYS(mmap), argument(3, SCMP_CMP_MASKED_EQ, kSharedAnonymous, kSharedAnonymous));
    // Nor memory that grows downwards, which the kernel counts as stack, and which a part of the stack stays when it is
    // moved and enlarged.
    filter.denyIf(SCMP_SYS(mmap), argument(3, SCMP_CMP_MASKED_EQ, MAP_GROWSDOWN, MAP_GROWSDOWN));
    filter.denyIf(SCMP_SYS(mremap), argument(0, SCMP_CMP_GE, belowStack()));
    if (stage == Stage::Worker) {
        denyProcesses(filter);
    }
}

/// Returns the filter of a worker. Making it takes longer than many a job, so the template does it once and each worker
/// has a copy.
const std::vector<sock_filter>& workerFilter() {
    static const std::vector<sock_filter> program = [] {
        CallFilter filter;
        denyCalls(filter, Stage::Worker);
        return filter.compile();
    }();
    return program;
}

bool load(std::span<const sock_filter> program) {
    const sock_fprog all{static_cast<unsigned short>(program.size()), const_cast<sock_filter*>(program.data())};
    return !program.empty() && ::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &all) == 0;
}

/// A process may signal itself, as abort() does, but no other process. This is a filter of its own because each worker
/// has another number. It need not check the architecture, which workerFilter() does.
bool denySignalsToOthers() {
    constexpr unsigned kLowWord = std::endian::native == std::endian::little ? 0 : sizeof(std::uint32_t);
    constexpr unsigned kFirstArgument = offsetof(seccomp_data, args) + kLowWord;
    const std::array<sock_filter, 7> program{{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_kill, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_tgkill, 0, 2),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kFirstArgument),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(::getpid()), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
    }};
    return load(program);
}

bool loadFilter(Stage stage) {
    CallFilter filter;
    denyCalls(filter, stage);
    return filter.load();
}

bool confineTemplate() {
    (void)workerFilter();  // while this process can still make it
    return loadFilter(Stage::Template);
}

bool confineWorker() {
    return denySignalsToOthers() && (load(workerFilter()) || loadFilter(Stage::Worker));
}

bool seccompExists() {
    // Installs a filter from an invalid address. A kernel without filters fails before it reads the address.
    return ::prctl(PR_SET_SECCOMP, 2 /* SECCOMP_MODE_FILTER */, nullptr, 0, 0) != 0 && errno == EFAULT;
}

void limit(__rlimit_resource resource, std::uint64_t value) {
    const rlimit both{value, value};
    ::setrlimit(resource, &both);
}

/// Keeps the stack from growing any further than it may now. RLIMIT_DATA does not count it.
void limitStack() {
    rlimit stack{};
    ::getrlimit(RLIMIT_STACK, &stack);
    limit(RLIMIT_STACK, std::min(stack.rlim_cur, kLargestStack));
}

/// Sets what both kinds of process need.
void prepare(const WorkerLimits& limits) {
    ::tzset();  // reads a file
    limit(RLIMIT_DATA, limits.memory);
    limitStack();
    limit(RLIMIT_NOFILE, limits.descriptors);
    limit(RLIMIT_CORE, 0);
    limit(RLIMIT_SIGPENDING, 0);  // each timer takes one of the user's, too
    ::prctl(PR_SET_DUMPABLE, 0);
    ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
}

constexpr const char* kNoLandlock = "no Landlock: a worker could open files by path";
constexpr const char* kNoSeccomp = "no seccomp filters: a worker could create sockets and execute programs";

}  // namespace

std::uint64_t WorkerLimits::memoryOfEach(unsigned workers, std::uint64_t machine) {
    constexpr std::uint64_t kLeast = 1ULL << 30;
    constexpr std::uint64_t kMost = 8ULL << 30;
    return std::clamp(machine / std::max(workers, 1U), kLeast, kMost);
}

std::uint64_t WorkerLimits::memoryOfEach(unsigned workers) {
    const long pages = ::sysconf(_SC_PHYS_PAGES);
    const long size = ::sysconf(_SC_PAGESIZE);
    const bool known = pages > 0 && size > 0;
    return memoryOfEach(workers, known ? static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(size) : 0);
}

void volunteerForOutOfMemory() {
    // Of 1000. A process scores its share of the machine's memory in thousandths, and this is added.
    constexpr std::string_view kAdjustment = "500";
    const int file = ::open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC);
    [[maybe_unused]] const auto written = ::write(file, kAdjustment.data(), kAdjustment.size());
    ::close(file);
}

std::vector<std::string> enterSandbox(const WorkerLimits& limits, SandboxLayers layers) {
    std::vector<std::string> missing;
    prepare(limits);
    if (layers.landlock && !denyPaths()) {
        missing.emplace_back(kNoLandlock);
    }
    if (layers.seccomp && !confineWorker()) {
        missing.emplace_back(kNoSeccomp);
    }
    return missing;
}

void enterTemplateSandbox(const WorkerLimits& limits) {
    prepare(limits);
    (void)denyPaths();
    (void)confineTemplate();
}

SandboxSupport sandboxSupport() {
    return {.landlock = landlockVersion(), .seccomp = seccompExists()};
}

std::vector<std::string> missingForSandbox(const SandboxSupport& support) {
    std::vector<std::string> missing;
    if (support.landlock == 0) {
        missing.emplace_back(kNoLandlock);
    }
    if (!support.seccomp) {
        missing.emplace_back(kNoSeccomp);
    }
    return missing;
}

}  // namespace krv::server
