#pragma once

#include <chrono>
#include <cstdint>
#include <utility>

#include <sys/types.h>

#include <MediaServer/Protocol/Descriptor.h>

namespace krv::server {

/// The channel between the server and the template process from which workers are forked. The server sends the worker's
/// end of a new worker channel; the template replies with the process id of the worker. Each end is used by one thread.
class TemplateChannel {
public:
    /// Takes ownership of socket, one end of a SOCK_SEQPACKET socket pair.
    explicit TemplateChannel(Descriptor socket)
        : socket_(std::move(socket)) {}

    /// For the server's end: asks for a worker with this end of its channel, which is borrowed. Returns the worker's
    /// process id. On failure returns -1 and sets errno: ETIMEDOUT if no reply arrives in time, EPIPE if the template
    /// has exited, ECANCELED once the descriptor `stop` is readable, which is borrowed; -1 for none.
    [[nodiscard]] pid_t requestWorker(int workerEnd, std::chrono::milliseconds timeout, int stop = -1);

    /// For the template's end: blocks until the next request and returns the worker's end; none when the server has
    /// closed the channel.
    [[nodiscard]] Descriptor receiveRequest();
    /// For the template's end: replies with a process id, or with a negative error number.
    void reply(std::int32_t workerOrError);

private:
    Descriptor socket_;
};

}  // namespace krv::server
