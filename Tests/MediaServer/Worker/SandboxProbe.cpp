// Enters a worker's sandbox and tries to escape. Prints one line "NAME: refused", "NAME: done" or "NAME: error TEXT"
// for each attempt. The arguments are a file that exists and the pid of a process of the same user.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <MediaServer/Worker/Sandbox.h>

namespace {

/// A call that fails returns -1; EPERM and EACCES are refusals.
void attempt(const char* name, const std::function<long()>& call) {
    errno = 0;
    if (call() != -1) {
        std::printf("%s: done\n", name);
    } else if (errno == EPERM || errno == EACCES) {
        std::printf("%s: refused\n", name);
    } else {
        std::printf("%s: error %s\n", name, std::strerror(errno));
    }
}

long runThread() {
    long result = -1;
    std::thread([&result] { result = 0; }).join();
    return result;
}

}  // namespace

int main(int count, char** arguments) {
    if (count < 3) {
        return 2;
    }
    const char* const file = arguments[1];
    const auto other = static_cast<pid_t>(std::atol(arguments[2]));
    const int held = ::open(file, O_RDONLY | O_CLOEXEC);
    const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    for (const std::string& phrase : krv::server::enterSandbox({.memory = 256U << 20U, .descriptors = 32})) {
        std::printf("missing: %s\n", phrase.c_str());
    }

    attempt("read what is open", [&] {
        char byte = 0;
        return ::read(held, &byte, 1);
    });
    attempt("start a thread", &runThread);
    attempt("use memory", [] {
        const std::vector<char> memory(64U << 20U, 'x');
        return static_cast<long>(memory.size());
    });
    attempt("open for reading", [&] { return ::open(file, O_RDONLY); });
    attempt("open a folder", [] { return ::open("/", O_RDONLY | O_DIRECTORY); });
    attempt("make a file", [] { return ::open("/tmp/krv-sandbox-probe", O_CREAT | O_WRONLY, 0600); });
    attempt("make a nameless file", [] { return ::open("/tmp", O_TMPFILE | O_WRONLY, 0600); });
    attempt("delete", [&] { return ::unlink(file); });
    attempt("rename", [&] { return ::rename(file, "/tmp/krv-sandbox-probe"); });
    attempt("link", [&] { return ::link(file, "/tmp/krv-sandbox-probe"); });
    attempt("make a folder", [] { return ::mkdir("/tmp/krv-sandbox-probe", 0700); });
    attempt("open through /proc", [&] { return ::open(("/proc/self/fd/" + std::to_string(held)).c_str(), O_RDONLY); });
    attempt("make a TCP socket", [] { return ::socket(AF_INET, SOCK_STREAM, 0); });
    attempt("make a UDP socket", [] { return ::socket(AF_INET6, SOCK_DGRAM, 0); });
    attempt("make a local socket", [] { return ::socket(AF_UNIX, SOCK_STREAM, 0); });
    attempt("make a netlink socket", [] { return ::socket(AF_NETLINK, SOCK_RAW, 0); });
    attempt("connect a socket it holds", [&] {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(8000);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return ::connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    });
    attempt("execute", [] {
        const char* const argv[] = {"/bin/true", nullptr};
        return ::execv(argv[0], const_cast<char* const*>(argv));
    });
    attempt("execute from memory", [] {
        const int memory = ::memfd_create("program", MFD_CLOEXEC);
        const char* const argv[] = {"program", nullptr};
        return memory < 0 ? -1 : ::fexecve(memory, const_cast<char* const*>(argv), environ);
    });
    attempt("fork", [] {
        const pid_t child = ::fork();
        if (child == 0) {
            ::_exit(0);
        }
        return static_cast<long>(child);
    });
    attempt("trace another process", [&] { return ::ptrace(PTRACE_SEIZE, other, nullptr, nullptr); });
    attempt("read another process's memory", [&] {
        char byte = 0;
        iovec here{&byte, 1};
        iovec there{&byte, 1};
        return ::process_vm_readv(other, &here, 1, &there, 1, 0);
    });
    attempt("signal another process", [&] { return ::kill(other, SIGTERM); });
    attempt("signal its group", [] { return ::kill(0, SIGTERM); });
    attempt("raise a signal for itself", [] {
        std::signal(SIGUSR1, [](int) {});
        return ::raise(SIGUSR1);
    });
    attempt("take more memory than it may", [] {
        errno = EPERM;  // what is expected; the allocation itself says nothing
        return ::mmap(nullptr, 512U << 20U, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) == MAP_FAILED
                   ? (errno == ENOMEM ? (errno = EPERM, -1L) : -1L)
                   : 0L;
    });
    attempt("open more descriptors than it may", [&] {
        for (int i = 0; i < 64; ++i) {
            if (::dup(held) < 0) {
                return errno == EMFILE ? (errno = EPERM, -1L) : -1L;
            }
        }
        return 0L;
    });
    std::fflush(stdout);
    std::signal(SIGABRT, SIG_DFL);
    std::abort();  // a crash must still be one
}
