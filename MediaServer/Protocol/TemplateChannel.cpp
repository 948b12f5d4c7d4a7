#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <utility>
#include <vector>

#include <poll.h>
#include <sys/socket.h>

#include <MediaServer/Protocol/DescriptorMessage.h>
#include <MediaServer/Protocol/TemplateChannel.h>

namespace krv::server {

pid_t TemplateChannel::requestWorker(int workerEnd, std::chrono::milliseconds timeout, int stop) {
    const std::byte request{'w'};
    if (sendWithDescriptors(socket_.get(), {&request, 1}, {&workerEnd, 1}) < 0) {
        return -1;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::array<pollfd, 2> waiting{{{socket_.get(), POLLIN, 0}, {stop, POLLIN, 0}}};
    int events = 0;
    do {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        events = ::poll(waiting.data(), waiting.size(), static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
    } while (events < 0 && errno == EINTR);
    if (events <= 0) {
        errno = events == 0 ? ETIMEDOUT : errno;
        return -1;
    }
    if (waiting[0].revents == 0) {
        errno = ECANCELED;
        return -1;
    }
    std::int32_t reply = 0;
    const ssize_t count = ::recv(socket_.get(), &reply, sizeof reply, 0);
    if (count == sizeof reply && reply > 0) {
        return reply;
    }
    errno = count != sizeof reply ? EPIPE : -reply;
    return -1;
}

Descriptor TemplateChannel::receiveRequest() {
    std::byte request{};
    std::vector<Descriptor> files;
    if (receiveWithDescriptors(socket_.get(), {&request, 1}, files) <= 0 || files.empty()) {
        return {};
    }
    return std::move(files.front());
}

void TemplateChannel::reply(std::int32_t workerOrError) {
    while (::send(socket_.get(), &workerOrError, sizeof workerOrError, MSG_NOSIGNAL) < 0 && errno == EINTR) {
    }
}

}  // namespace krv::server
