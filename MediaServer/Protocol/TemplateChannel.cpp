#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include <poll.h>
#include <sys/socket.h>

#include <MediaServer/Protocol/TemplateChannel.h>

namespace krv::server {

pid_t TemplateChannel::requestWorker(int workerEnd, std::chrono::milliseconds timeout) {
    char request = 'w';
    iovec part{&request, sizeof request};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof workerEnd)> control{};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof workerEnd);
    std::memcpy(CMSG_DATA(header), &workerEnd, sizeof workerEnd);
    if (::sendmsg(socket_.get(), &message, MSG_NOSIGNAL) < 0) {
        return -1;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    pollfd waiting{socket_.get(), POLLIN, 0};
    int events = 0;
    do {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        events = ::poll(&waiting, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
    } while (events < 0 && errno == EINTR);
    if (events <= 0) {
        errno = events == 0 ? ETIMEDOUT : errno;
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
    for (;;) {
        char request = 0;
        iovec part{&request, sizeof request};
        int workerEnd = -1;
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof workerEnd)> control{};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        const ssize_t count = ::recvmsg(socket_.get(), &message, MSG_CMSG_CLOEXEC);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        const cmsghdr* const header = count > 0 ? CMSG_FIRSTHDR(&message) : nullptr;
        if (header && header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
            std::memcpy(&workerEnd, CMSG_DATA(header), sizeof workerEnd);
        }
        return Descriptor(workerEnd);
    }
}

void TemplateChannel::reply(std::int32_t workerOrError) {
    while (::send(socket_.get(), &workerOrError, sizeof workerOrError, MSG_NOSIGNAL) < 0 && errno == EINTR) {
    }
}

}  // namespace krv::server
