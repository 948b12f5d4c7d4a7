#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <sys/types.h>

#include <MediaServer/Protocol/Descriptor.h>
#include <MediaServer/Protocol/TemplateChannel.h>

namespace krv::server {

/// The process from which workers are forked (see Worker/WorkerTemplate.cpp). It is started with the first worker, and
/// again if it has died or does not respond within some seconds.
///
/// The worker program is opened once, so that workers can be forked after an upgrade has replaced or removed it. All
/// operations must be called on one thread: the kernel kills the process when the thread that has started it exits. The
/// constructor makes this process a subreaper, and so the parent of the workers.
class TemplateProcess {
public:
    /// executable: path of the worker program. memoryLimit: bytes of writable memory per worker; 0 for a default.
    TemplateProcess(std::string executable, std::uint64_t memoryLimit);
    ~TemplateProcess();
    TemplateProcess(const TemplateProcess&) = delete;
    TemplateProcess& operator=(const TemplateProcess&) = delete;

    /// Forks a worker that serves this end of a worker channel, which is borrowed. Returns its process id; it is a
    /// child of this process with a process group of its own. Returns -1 and sets failure to the reason if none can be
    /// forked, or once the descriptor `stop` is readable, which is borrowed.
    [[nodiscard]] pid_t forkWorker(int workerEnd, int stop, std::string& failure);

private:
    [[nodiscard]] bool start(std::string& failure);
    /// Kills the process and what it has forked and not handed over.
    void end();

    const std::string executable_;
    const std::uint64_t memoryLimit_;
    Descriptor program_;
    pid_t pid_ = -1;
    /// Whether the process has forked a worker.
    bool responded_ = false;
    std::optional<TemplateChannel> channel_;
};

}  // namespace krv::server
