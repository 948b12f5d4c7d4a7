#pragma once

#include <functional>
#include <optional>
#include <vector>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include <MediaServer/Protocol/Descriptor.h>

namespace krv::server {

/// The channel between server and worker: archived records, each preceded by its length in four bytes (little-endian),
/// with open descriptors beside them. Each end is used by one thread.
///
/// The server sends the request with the sources and, last, the output. The worker confirms it with a record of type 2,
/// reports progress in records of type 14, and ends with one of type 15, which has an error if the work failed.
class WorkerChannel {
public:
    struct Message {
        KRVOperationBase::Ref record;
        std::vector<Descriptor> files;
        /// Of the archived record, in bytes.
        std::size_t size = 0;
    };

    /// Takes ownership of socket, one end of a stream socket pair.
    explicit WorkerChannel(Descriptor socket)
        : socket_(std::move(socket)) {}

    [[nodiscard]] int descriptor() const noexcept { return socket_.get(); }

    /// Called when the peer has not read enough for more to be sent. Returns whether to try again.
    using OnFull = std::function<bool()>;

    /// Sends a record and descriptors, which are borrowed. Never blocks if there is onFull, which may wait. Returns
    /// false if the peer has closed its end or onFull has returned false; the channel is of no use then.
    bool send(const KRVOperationBase& record, const std::vector<int>& files = {}, const OnFull& onFull = {});
    /// For the worker's end: blocks until the next message. Returns nothing at the end of the stream and for an invalid
    /// message.
    std::optional<Message> receive();
    /// For the server's end: returns the next message without descriptors if all of it has arrived, and keeps the part
    /// that has arrived otherwise. Never blocks, because the worker may have been taken over by a hostile file and send
    /// half a message. Descriptors that it sends are closed. Sets ended at the end of the stream and at an invalid
    /// message; a worker that sends one counts as exited.
    std::optional<Message> receiveAvailable(bool& ended);

private:
    /// Returns the message whose archived record this is, or nothing.
    [[nodiscard]] static std::optional<Message> messageOf(Data record, std::vector<Descriptor> files);
    [[nodiscard]] bool receiveBytes(void* bytes, std::size_t size, std::vector<Descriptor>& files);

    Descriptor socket_;
    /// What receiveAvailable() has received of the next message: its length and then its record.
    Data partial_;
};

}  // namespace krv::server
