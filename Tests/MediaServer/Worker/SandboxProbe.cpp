// Enters a worker's sandbox and tries to escape. Prints one line "NAME: refused", "NAME: done" or "NAME: error TEXT"
// for each attempt. The arguments are a file that exists, the pid of a process of the same user, and which layers of
// the sandbox to enter: "both" or "seccomp".
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <linux/fs.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/msg.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <MediaServer/Worker/Sandbox.h>

namespace {

/// A call that fails returns -1; EPERM and EACCES are refusals, and ENOSYS hides a call.
void attempt(const char* name, const std::function<long()>& call) {
    errno = 0;
    if (call() != -1) {
        std::printf("%s: done\n", name);
    } else if (errno == EPERM || errno == EACCES || errno == ENOSYS) {
        std::printf("%s: refused\n", name);
    } else {
        std::printf("%s: error %s\n", name, std::strerror(errno));
    }
    std::fflush(stdout);
}

long runThread() {
    long result = -1;
    std::thread([&result] { result = 0; }).join();
    return result;
}

const char* const kNewName = "/tmp/krv-sandbox-probe";
/// A user and an object of System V that do not exist. Without a sandbox, the calls fail with another error.
constexpr id_t kNobody = 0x7FFFFFF0;
constexpr int kNoIdentifier = 0x7FFFFFFF;

/// What the process holds when it enters the sandbox, as a worker does, and more than a worker does.
struct Held {
    const char* path;
    pid_t other;
    int source;
    int output;
    int tcp;
    std::array<int, 2> channel{};
    std::array<int, 2> datagrams{};
    std::array<int, 2> pipe{};
    int watches;
};

void attemptWhatWorkersDo(const Held& held) {
    attempt("read what is open", [&] {
        char byte = 0;
        return ::pread(held.source, &byte, 1, 0);
    });
    attempt("map what is open",
            [&] { return ::mmap(nullptr, 1, PROT_READ, MAP_SHARED, held.source, 0) == MAP_FAILED ? -1L : 0L; });
    attempt("stat what is open", [&] {
        struct stat status {};
        return ::fstat(held.source, &status);
    });
    attempt("write the output", [&] { return ::pwrite(held.output, "x", 1, 0); });
    attempt("shorten the output", [&] { return ::ftruncate(held.output, 0); });
    attempt("send to the server", [&] { return ::send(held.channel[0], "x", 1, MSG_NOSIGNAL); });
    attempt("receive from the server", [&] {
        char byte = 0;
        [[maybe_unused]] const auto sent = ::send(held.channel[1], "x", 1, MSG_NOSIGNAL);
        return ::recv(held.channel[0], &byte, 1, 0);
    });
    attempt("copy a descriptor", [&] { return ::fcntl(held.source, F_DUPFD_CLOEXEC, 0); });
    attempt("start a thread", &runThread);
    attempt("name a thread", [] { return ::prctl(PR_SET_NAME, "probe"); });
    attempt("use memory", [] {
        const std::vector<char> memory(64U << 20U, 'x');
        return static_cast<long>(memory.size());
    });
    attempt("enlarge memory", [] {
        constexpr std::size_t kPage = 4096;
        void* const memory = ::mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        return ::mremap(memory, kPage, 2 * kPage, MREMAP_MAYMOVE) == MAP_FAILED ? -1L : 0L;
    });
    attempt("ask for its limits", [] {
        rlimit limit{};
        return ::getrlimit(RLIMIT_NOFILE, &limit);
    });
    attempt("raise a signal for itself", [] {
        std::signal(SIGUSR1, [](int) {});
        return ::raise(SIGUSR1);
    });
}

void attemptPaths(const Held& held) {
    attempt("open for reading", [&] { return ::open(held.path, O_RDONLY); });
    attempt("open a folder", [] { return ::open("/", O_RDONLY | O_DIRECTORY); });
    attempt("open as a name only", [&] { return ::open(held.path, O_PATH); });
    attempt("make a file", [] { return ::open(kNewName, O_CREAT | O_WRONLY, 0600); });
    attempt("make a nameless file", [] { return ::open("/tmp", O_TMPFILE | O_WRONLY, 0600); });
    attempt("make a file with creat", [] { return ::creat(kNewName, 0600); });
    attempt("open with openat2", [&] {
        std::array<std::uint64_t, 3> how{};
        return ::syscall(SYS_openat2, AT_FDCWD, held.path, how.data(), sizeof how);
    });
    attempt("open through /proc",
            [&] { return ::open(("/proc/self/fd/" + std::to_string(held.source)).c_str(), O_RDONLY); });
    attempt("truncate", [&] { return ::truncate(held.path, 0); });
    attempt("delete", [&] { return ::unlink(held.path); });
    attempt("delete a folder", [] { return ::rmdir(kNewName); });
    attempt("rename", [&] { return ::rename(held.path, kNewName); });
    attempt("exchange", [&] { return ::renameat2(AT_FDCWD, held.path, AT_FDCWD, kNewName, RENAME_EXCHANGE); });
    attempt("link", [&] { return ::link(held.path, kNewName); });
    attempt("link what is open", [&] { return ::linkat(held.output, "", AT_FDCWD, kNewName, AT_EMPTY_PATH); });
    attempt("make a symbolic link", [&] { return ::symlink(held.path, kNewName); });
    attempt("read a symbolic link", [] {
        char target = 0;
        return ::readlink("/proc/self/exe", &target, 1);
    });
    attempt("make a folder", [] { return ::mkdir(kNewName, 0700); });
    attempt("make a named pipe", [] { return ::mkfifo(kNewName, 0600); });
    attempt("change the folder", [] { return ::chdir("/tmp"); });
    attempt("watch", [&] { return ::inotify_add_watch(held.watches, held.path, IN_ACCESS); });
    attempt("ask for access", [&] { return ::access(held.path, R_OK); });
}

void attemptMetadata(const Held& held) {
    attempt("change the mode", [&] { return ::chmod(held.path, 0777); });
    attempt("change the mode with fchmodat2",
            [&] { return ::syscall(452 /* newer than some headers */, AT_FDCWD, held.path, 0777, 0); });
    attempt("change the mode of what is open", [&] { return ::fchmod(held.source, 0777); });
    attempt("make the output setuid", [&] { return ::fchmod(held.output, 06755); });
    attempt("change the owner", [&] { return ::lchown(held.path, ::getuid(), ::getgid()); });
    attempt("change the owner of what is open", [&] { return ::fchown(held.source, ::getuid(), ::getgid()); });
    const std::array<timespec, 2> past{};
    attempt("change the times", [&] { return ::utimensat(AT_FDCWD, held.path, past.data(), 0); });
    attempt("change the times of what is open", [&] { return ::futimens(held.source, past.data()); });
    attempt("set an attribute", [&] { return ::setxattr(held.path, "user.krv", "x", 1, 0); });
    attempt("set an attribute of what is open", [&] { return ::fsetxattr(held.source, "user.krv", "x", 1, 0); });
    attempt("remove an attribute", [&] { return ::removexattr(held.path, "user.krv"); });
    attempt("set the flags of what is open", [&] {
        long flags = FS_NODUMP_FL;
        return ::ioctl(held.source, FS_IOC_SETFLAGS, &flags);
    });
    attempt("lock what is open", [&] { return ::flock(held.source, LOCK_EX | LOCK_NB); });
    struct flock whole {};
    whole.l_type = F_RDLCK;
    attempt("lock a range of what is open", [&] { return ::fcntl(held.source, F_SETLK, &whole); });
    attempt("lock a range by descriptor", [&] { return ::fcntl(held.source, F_OFD_SETLK, &whole); });
    attempt("lease what is open", [&] { return ::fcntl(held.source, F_SETLEASE, F_RDLCK); });
    attempt("lease it with a high bit set",
            [&] { return ::syscall(SYS_fcntl, held.source, (1UL << 32U) | F_SETLEASE, F_RDLCK); });
}

void attemptSockets(const Held& held) {
    attempt("make a TCP socket", [] { return ::socket(AF_INET, SOCK_STREAM, 0); });
    attempt("make a UDP socket", [] { return ::socket(AF_INET6, SOCK_DGRAM, 0); });
    attempt("make a local socket", [] { return ::socket(AF_UNIX, SOCK_STREAM, 0); });
    attempt("make a netlink socket", [] { return ::socket(AF_NETLINK, SOCK_RAW, 0); });
    attempt("make a pair of sockets", [] {
        std::array<int, 2> ends{};
        return ::socketpair(AF_UNIX, SOCK_DGRAM, 0, ends.data());
    });
    attempt("connect a socket it holds", [&] {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(8000);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return ::connect(held.tcp, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    });
    attempt("send to an address", [&] {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, "/run/nobody-listens");
        return ::sendto(held.datagrams[0], "x", 1, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
                        sizeof address);
    });
}

void attemptProcesses(const Held& held) {
    attempt("execute", [] {
        const char* const argv[] = {"/bin/true", nullptr};
        return ::execv(argv[0], const_cast<char* const*>(argv));
    });
    attempt("fork", [] {
        const pid_t child = ::fork();
        if (child == 0) {
            ::_exit(0);
        }
        return static_cast<long>(child);
    });
    attempt("trace another process", [&] { return ::ptrace(PTRACE_SEIZE, held.other, nullptr, nullptr); });
    attempt("read another process's memory", [&] {
        char byte = 0;
        iovec here{&byte, 1};
        iovec there{&byte, 1};
        return ::process_vm_readv(held.other, &here, 1, &there, 1, 0);
    });
    attempt("ask for another process's addresses", [&] {
        void* head = nullptr;
        std::size_t size = 0;
        return ::syscall(SYS_get_robust_list, held.other, &head, &size);
    });
    attempt("move another process's memory",
            [&] { return ::syscall(SYS_move_pages, held.other, 0, nullptr, nullptr, nullptr, 0); });
    attempt("migrate another process", [&] { return ::syscall(SYS_migrate_pages, held.other, 0, nullptr, nullptr); });
    attempt("signal another process", [&] { return ::kill(held.other, 0); });
    attempt("signal another process's thread", [&] { return ::tgkill(held.other, held.other, 0); });
    attempt("signal its group", [] { return ::kill(0, 0); });
    siginfo_t info{};
    info.si_code = SI_QUEUE;
    attempt("queue a signal for another process",
            [&] { return ::syscall(SYS_rt_sigqueueinfo, held.other, SIGKILL, &info); });
    attempt("queue a signal for another thread",
            [&] { return ::syscall(SYS_rt_tgsigqueueinfo, held.other, held.other, SIGKILL, &info); });
    attempt("have a descriptor signal another process", [&] { return ::fcntl(held.pipe[0], F_SETOWN, held.other); });
    attempt("have it do so by F_SETOWN_EX", [&] {
        const f_owner_ex owner{F_OWNER_PID, held.other};
        return ::fcntl(held.pipe[0], F_SETOWN_EX, &owner);
    });
    attempt("choose that signal", [&] { return ::fcntl(held.pipe[0], F_SETSIG, SIGKILL); });
    attempt("limit another process", [&] {
        rlimit limit{};
        return ::prlimit(held.other, RLIMIT_NOFILE, nullptr, &limit);
    });
    attempt("reprioritise another process",
            [&] { return ::setpriority(PRIO_PROCESS, static_cast<id_t>(held.other), 19); });
    // A user that does not exist: if this call succeeded, it would change every process of this user.
    attempt("reprioritise a user", [] { return ::setpriority(PRIO_USER, kNobody, 19); });
    const sched_param parameter{};
    attempt("reschedule another process", [&] { return ::sched_setscheduler(held.other, SCHED_BATCH, &parameter); });
    attempt("set another process's parameters", [&] { return ::sched_setparam(held.other, &parameter); });
    attempt("pin another process", [&] {
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(0, &set);
        return ::sched_setaffinity(held.other, sizeof set, &set);
    });
    attempt("slow another process's disk", [&] { return ::syscall(SYS_ioprio_set, 1, held.other, 3U << 13U); });
    attempt("outlive its server", [] { return ::prctl(PR_SET_PDEATHSIG, 0); });
    attempt("outlive it with a high bit set",
            [] { return ::syscall(SYS_prctl, (1UL << 32U) | PR_SET_PDEATHSIG, 0, 0, 0, 0); });
    attempt("become dumpable", [] { return ::prctl(PR_SET_DUMPABLE, 1); });
    attempt("start a session", [] { return static_cast<long>(::setsid()); });
    attempt("join another group", [] { return ::setpgid(0, ::getpgid(::getppid())); });
}

void attemptMemory(const Held& held) {
    attempt("take more memory than it may", [] {
        return ::mmap(nullptr, 512U << 20U, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) == MAP_FAILED
                   ? (errno == ENOMEM ? (errno = EPERM, -1L) : -1L)
                   : 0L;
    });
    attempt("take shared memory", [] {
        return ::mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0) == MAP_FAILED ? -1L : 0L;
    });
    attempt("take shared memory, validated", [] {
        return ::mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_SHARED_VALIDATE | MAP_ANONYMOUS, -1, 0) == MAP_FAILED
                   ? -1L
                   : 0L;
    });
    attempt("take memory that grows downwards", [] {
        constexpr int kKind = MAP_PRIVATE | MAP_ANONYMOUS | MAP_GROWSDOWN;
        return ::mmap(nullptr, 1, PROT_READ | PROT_WRITE, kKind, -1, 0) == MAP_FAILED ? -1L : 0L;
    });
    attempt("enlarge the stack elsewhere", [] {
        constexpr std::size_t kPage = 4096;
        alignas(kPage) std::array<char, 2 * kPage> page{};
        return ::mremap(page.data(), kPage, 512U << 20U, MREMAP_MAYMOVE) == MAP_FAILED ? -1L : 0L;
    });
    attempt("have a stack without a limit", [] {
        constexpr rlim_t kLarge = 64U << 20U;
        rlimit limit{};
        return ::getrlimit(RLIMIT_STACK, &limit) != 0 || limit.rlim_max > kLarge ? 0L : (errno = EPERM, -1L);
    });
    attempt("make a file in memory", [] { return ::memfd_create("memory", MFD_CLOEXEC); });
    attempt("make a pipe", [] {
        std::array<int, 2> ends{};
        return ::pipe2(ends.data(), O_CLOEXEC);
    });
    attempt("splice", [&] {
        off64_t start = 0;
        return ::splice(held.source, &start, held.pipe[1], nullptr, 1, 0);
    });
    attempt("tee", [&] { return ::tee(held.pipe[0], held.pipe[1], 1, SPLICE_F_NONBLOCK); });
    attempt("vmsplice", [&] {
        char byte = 0;
        const iovec part{&byte, 1};
        return ::vmsplice(held.pipe[1], &part, 1, 0);
    });
    attempt("use up the user's timers", [] {
        timer_t timer{};
        return ::timer_create(CLOCK_MONOTONIC, nullptr, &timer) == 0 ? 0L
               : errno == EAGAIN                                     ? (errno = EPERM, -1L)
                                                                     : -1L;
    });
    attempt("use up the user's watches", [] { return ::epoll_create1(EPOLL_CLOEXEC); });
    attempt("make shared memory with a key", [] { return ::shmget(IPC_PRIVATE, 1, 0600); });
    attempt("delete others' shared memory", [] { return ::shmctl(kNoIdentifier, IPC_RMID, nullptr); });
    attempt("delete others' queues", [] { return ::msgctl(kNoIdentifier, IPC_RMID, nullptr); });
    attempt("flush all disks", [] { return ::syscall(SYS_sync); });
    attempt("flush a disk", [&] { return ::syncfs(held.source); });
    attempt("make a call that is not known yet", [] { return ::syscall(500); });
    attempt("open more descriptors than it may", [&] {
        for (int i = 0; i < 64; ++i) {
            if (::dup(held.source) < 0) {
                return errno == EMFILE ? (errno = EPERM, -1L) : -1L;
            }
        }
        return 0L;
    });
}

}  // namespace

int main(int count, char** arguments) {
    if (count < 4) {
        return 2;
    }
    Held held{.path = arguments[1],
              .other = static_cast<pid_t>(std::atol(arguments[2])),
              .source = ::open(arguments[1], O_RDONLY | O_CLOEXEC),
              .output = ::open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600),
              .tcp = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0),
              .watches = ::inotify_init1(IN_CLOEXEC)};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, held.channel.data()) != 0 ||
        ::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, held.datagrams.data()) != 0 ||
        ::pipe2(held.pipe.data(), O_CLOEXEC) != 0) {
        return 2;
    }
    const bool seccompOnly = std::string_view(arguments[3]) == "seccomp";
    for (const std::string& phrase : krv::server::enterSandbox({.memory = 256U << 20U, .descriptors = 32},
                                                               {.landlock = !seccompOnly, .seccomp = true})) {
        std::printf("missing: %s\n", phrase.c_str());
    }
    attemptWhatWorkersDo(held);
    std::printf("---\n");
    attemptPaths(held);
    attemptMetadata(held);
    attemptSockets(held);
    attemptProcesses(held);
    attemptMemory(held);
    std::printf("---\n");
    std::fflush(stdout);
    std::signal(SIGABRT, SIG_DFL);
    std::abort();  // a crash must still be one
}
