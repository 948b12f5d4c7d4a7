#pragma once

#include <optional>
#include <vector>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include <MediaServer/Protocol/Descriptor.h>

namespace krv::server {

/// The wire between server and worker: archived records, each behind its length in four bytes (little-endian), with
/// open files beside them. One thread at each end.
///
/// The job goes to the worker with its sources and, last, its output. A record of type 2 comes back when the worker has
/// it, progress in records of type 14, and the end in one of type 15, which carries an error when the work failed.
class WorkerChannel {
public:
    struct Message {
        KRVOperationBase::Ref record;
        std::vector<Descriptor> files;
    };

    /// socket: one end of a stream socket pair; taken over.
    explicit WorkerChannel(Descriptor socket)
        : socket_(std::move(socket)) {}

    [[nodiscard]] int descriptor() const noexcept { return socket_.get(); }

    /// False when the other end has gone.
    bool send(const KRVOperationBase& record, const std::vector<int>& files = {});
    /// Blocks for the next message. Nothing at the end of the stream, and for anything that is no message: a worker
    /// that sends rubbish has ended as far as the server is concerned.
    std::optional<Message> receive();

private:
    [[nodiscard]] bool receiveBytes(void* bytes, std::size_t size, std::vector<Descriptor>& files);

    Descriptor socket_;
};

}  // namespace krv::server
