#pragma once

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
    };

    /// Takes ownership of socket, one end of a stream socket pair.
    explicit WorkerChannel(Descriptor socket)
        : socket_(std::move(socket)) {}

    [[nodiscard]] int descriptor() const noexcept { return socket_.get(); }

    /// Sends a record and descriptors, which are borrowed. Returns false if the peer has closed its end.
    bool send(const KRVOperationBase& record, const std::vector<int>& files = {});
    /// Blocks until the next message. Returns nothing at the end of the stream and for an invalid message: a worker that
    /// sends invalid messages counts as exited.
    std::optional<Message> receive();

private:
    [[nodiscard]] bool receiveBytes(void* bytes, std::size_t size, std::vector<Descriptor>& files);

    Descriptor socket_;
};

}  // namespace krv::server
