// How a worker is forked.
//
// Starting a worker as a program of its own costs a fifth of a second: the dynamic linker loads about 150 libraries. So
// one process does that once, and each worker is a copy of it.
//
// A worker must be a child of the server, which waits for it and whose exit must kill it. clone(CLONE_PARENT) could do
// that but leaves the C library with the thread id of the template. So the template starts an intermediate process,
// which forks the worker and exits. The server is a subreaper, so it becomes the worker's parent. The worker waits
// until then: PR_SET_PDEATHSIG refers to the parent of the moment.
//
// The intermediate process is made with vfork, so it runs in the template's memory while the template waits. A copy of
// a thousand mappings, which would be thrown away at once, costs as much as the worker's own. In the template's memory
// it may only do what a signal handler may do. So it calls _Fork, which unlike fork runs no handlers of the libraries
// and resets no locks; the worker needs neither, because the template has one thread.
//
// Until the server has the worker's process id, the worker stays in the template's process group. If the template dies
// at any moment, the server ends everything in that group.
//
// All workers have the template's layout of memory. A hostile file that learns an address in one worker would know it
// in the next. That is the price of the fork; the sandbox does not rely on secret addresses.
//
// Nothing that a worker sends reaches the template: a worker has neither end of the control channel and of the pipes.
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <MediaServer/Protocol/TemplateChannel.h>
#include <MediaServer/Worker/WorkerTemplate.h>

namespace krv::server {
namespace {

constexpr const char* kWorkerName = "KRVMediaWorker";

struct Pipe {
    Descriptor reading;
    Descriptor writing;
};

bool open(Pipe& pipe) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        return false;
    }
    pipe.reading.reset(ends[0]);
    pipe.writing.reset(ends[1]);
    return true;
}

/// Reads until the bytes are complete. Returns false at the end of the pipe.
bool readAll(int pipe, void* bytes, std::size_t size) {
    ssize_t count = 0;
    while ((count = ::read(pipe, bytes, size)) < 0 && errno == EINTR) {
    }
    return count == static_cast<ssize_t>(size);
}

enum class Process { Template, Worker };

/// Forks a worker and returns in both processes. In the template, workerOrError is set to what the server is told.
Process forkWorker(pid_t server, std::int32_t& workerOrError) {
    Pipe reparented;
    if (!open(reparented)) {
        workerOrError = -errno;
        return Process::Template;
    }
    volatile pid_t worker = -EAGAIN;
    const pid_t intermediate = ::vfork();
    if (intermediate == 0) {
        ::prctl(PR_SET_NAME, kWorkerName);  // inherited, so that the worker never has another
        const pid_t forked = ::_Fork();
        if (forked == 0) {
            reparented.writing.reset();
            char none = 0;
            (void)readAll(reparented.reading.get(), &none, sizeof none);
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != server) {
                ::_exit(1);  // the server has exited
            }
            return Process::Worker;
        }
        worker = forked > 0 ? forked : -errno;
        ::_exit(0);
    }
    workerOrError = intermediate < 0 ? -errno : worker;
    while (intermediate > 0 && ::waitpid(intermediate, nullptr, 0) < 0 && errno == EINTR) {
    }
    return Process::Template;  // closes the pipe that the worker waits for
}

}  // namespace

Descriptor forkWorkers(pid_t server, Descriptor control) {
    TemplateChannel channel(std::move(control));
    for (;;) {
        Descriptor workerEnd = channel.receiveRequest();
        if (!workerEnd) {
            ::_exit(0);
        }
        std::int32_t workerOrError = 0;
        if (forkWorker(server, workerOrError) == Process::Worker) {
            return workerEnd;
        }
        channel.reply(workerOrError);
    }
}

}  // namespace krv::server
