#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <unistd.h>

#include <MediaServer/Protocol/WorkerChannel.h>

namespace krv::server {
namespace {

constexpr std::uint32_t kLongestMessage = std::uint32_t{64} << 20;
/// More than any operation passes.
constexpr std::size_t kMostFiles = 1024;
/// How much memory is reserved for a message before more of it arrives.
constexpr std::size_t kStep = std::size_t{1} << 20;
/// The kernel allows at most 253 in one message.
constexpr std::size_t kMostFilesAtOnce = 250;

}  // namespace

bool WorkerChannel::send(const KRVOperationBase& record, const std::vector<int>& files) {
    const Data body = record.convertToData();
    if (body.size() > kLongestMessage || files.size() > kMostFiles) {
        return false;
    }
    const auto size = static_cast<std::uint32_t>(body.size());
    std::vector<std::byte> bytes(sizeof size + body.size());
    for (std::size_t i = 0; i < sizeof size; ++i) {
        bytes[i] = static_cast<std::byte>(size >> (8 * i));
    }
    std::copy(body.begin(), body.end(), bytes.begin() + sizeof size);

    std::array<char, CMSG_SPACE(sizeof(int) * kMostFilesAtOnce)> control{};
    std::size_t filesSent = 0;
    for (std::size_t sent = 0; sent < bytes.size();) {
        const std::size_t now = std::min(files.size() - filesSent, kMostFilesAtOnce);
        const bool moreAfter = filesSent + now < files.size();
        // Each group of descriptors goes with one byte, the last group with all remaining bytes.
        iovec part{bytes.data() + sent, moreAfter ? 1 : bytes.size() - sent};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        if (now > 0) {
            message.msg_control = control.data();
            message.msg_controllen = CMSG_SPACE(sizeof(int) * now);
            cmsghdr* const header = CMSG_FIRSTHDR(&message);
            header->cmsg_level = SOL_SOCKET;
            header->cmsg_type = SCM_RIGHTS;
            header->cmsg_len = CMSG_LEN(sizeof(int) * now);
            std::memcpy(CMSG_DATA(header), files.data() + filesSent, sizeof(int) * now);
        }
        const ssize_t count = ::sendmsg(socket_.get(), &message, MSG_NOSIGNAL);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        filesSent += now;
        sent += static_cast<std::size_t>(count);
    }
    return true;
}

bool WorkerChannel::receiveBytes(void* bytes, std::size_t size, std::vector<Descriptor>& files) {
    auto* p = static_cast<std::byte*>(bytes);
    while (size > 0) {
        std::array<char, CMSG_SPACE(sizeof(int) * kMostFilesAtOnce)> control{};
        iovec part{p, size};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        const ssize_t count = ::recvmsg(socket_.get(), &message, MSG_CMSG_CLOEXEC);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        for (cmsghdr* header = CMSG_FIRSTHDR(&message); header; header = CMSG_NXTHDR(&message, header)) {
            if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
                const std::size_t received = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
                for (std::size_t i = 0; i < received; ++i) {
                    int fd = -1;
                    std::memcpy(&fd, CMSG_DATA(header) + i * sizeof(int), sizeof fd);
                    files.emplace_back(fd);
                }
            }
        }
        p += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

std::optional<WorkerChannel::Message> WorkerChannel::receive() {
    Message message;
    std::array<unsigned char, 4> head{};
    if (!receiveBytes(head.data(), head.size(), message.files)) {
        return std::nullopt;
    }
    std::uint32_t size = 0;
    for (std::size_t i = 0; i < head.size(); ++i) {
        size |= static_cast<std::uint32_t>(head[i]) << (8 * i);
    }
    if (size > kLongestMessage) {
        return std::nullopt;
    }
    // Grows as bytes arrive: the announced length alone reserves no memory.
    Data body;
    while (body.size() < size) {
        const std::size_t before = body.size();
        body.resize(std::min<std::size_t>(size, before + kStep));
        if (!receiveBytes(body.data() + before, body.size() - before, message.files)) {
            return std::nullopt;
        }
    }
    return messageOf(std::move(body), std::move(message.files));
}

std::optional<WorkerChannel::Message> WorkerChannel::receiveAvailable(bool& ended) {
    for (;;) {
        std::uint32_t size = 0;
        for (std::size_t i = 0; i < std::min(partial_.size(), sizeof size); ++i) {
            size |= static_cast<std::uint32_t>(partial_[i]) << (8 * i);
        }
        const bool sizeKnown = partial_.size() >= sizeof size;
        const std::size_t wanted = sizeof size + (sizeKnown ? size : 0);
        if (size > kLongestMessage) {
            ended = true;
            return std::nullopt;
        }
        if (sizeKnown && partial_.size() == wanted) {
            auto message = messageOf({partial_.begin() + sizeof size, partial_.end()}, {});
            partial_.clear();
            ended = !message;
            return message;
        }
        // Grows as bytes arrive: the announced length alone reserves no memory.
        const std::size_t before = partial_.size();
        partial_.resize(std::min(wanted, before + kStep));
        const ssize_t count = ::recv(socket_.get(), partial_.data() + before, partial_.size() - before, MSG_DONTWAIT);
        const int failure = errno;
        partial_.resize(before + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        if (count <= 0 && !(count < 0 && failure == EINTR)) {
            ended = count == 0 || (failure != EAGAIN && failure != EWOULDBLOCK);
            return std::nullopt;
        }
    }
}

std::optional<WorkerChannel::Message> WorkerChannel::messageOf(Data record, std::vector<Descriptor> files) {
    Message message;
    message.size = record.size();
    message.record = KRVOperationBase::operationFromData(std::make_shared<const Data>(std::move(record)));
    message.files = std::move(files);
    return message.record ? std::optional(std::move(message)) : std::nullopt;
}

}  // namespace krv::server
