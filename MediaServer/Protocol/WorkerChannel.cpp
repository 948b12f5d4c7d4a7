#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <span>

#include <sys/socket.h>
#include <unistd.h>

#include <MediaServer/Protocol/DescriptorMessage.h>
#include <MediaServer/Protocol/WorkerChannel.h>

namespace krv::server {
namespace {

constexpr std::uint32_t kLongestMessage = std::uint32_t{64} << 20;
/// More than any operation passes.
constexpr std::size_t kMostFiles = 1024;
/// How much memory is reserved for a message before more of it arrives.
constexpr std::size_t kStep = std::size_t{1} << 20;

/// The length of a record, before it: four bytes, little-endian.
constexpr std::size_t kHeadSize = 4;

/// Decodes the length. The missing bytes of an incomplete head count as 0.
std::uint32_t lengthIn(std::span<const std::byte> head) {
    std::uint32_t length = 0;
    for (std::size_t i = 0; i < std::min(head.size(), kHeadSize); ++i) {
        length |= std::to_integer<std::uint32_t>(head[i]) << (8 * i);
    }
    return length;
}

}  // namespace

bool WorkerChannel::send(const KRVOperationBase& record, const std::vector<int>& files, const OnFull& onFull) {
    const Data body = record.convertToData();
    if (body.size() > kLongestMessage || files.size() > kMostFiles) {
        return false;
    }
    const auto size = static_cast<std::uint32_t>(body.size());
    std::vector<std::byte> bytes(kHeadSize + body.size());
    for (std::size_t i = 0; i < kHeadSize; ++i) {
        bytes[i] = static_cast<std::byte>(size >> (8 * i));
    }
    std::copy(body.begin(), body.end(), bytes.begin() + kHeadSize);

    std::size_t filesSent = 0;
    for (std::size_t sent = 0; sent < bytes.size();) {
        const auto now =
            std::span(files).subspan(filesSent, std::min(files.size() - filesSent, kMostDescriptorsAtOnce));
        const bool moreAfter = filesSent + now.size() < files.size();
        // Each group of descriptors goes with one byte, the last group with all remaining bytes.
        const auto part = std::span<const std::byte>(bytes).subspan(sent, moreAfter ? 1 : bytes.size() - sent);
        const ssize_t count = sendWithDescriptors(socket_.get(), part, now, onFull ? MSG_DONTWAIT : 0);
        if (count < 0) {
            const bool full = onFull && (errno == EAGAIN || errno == EWOULDBLOCK);
            if (full && onFull()) {
                continue;
            }
            return false;
        }
        filesSent += now.size();
        sent += static_cast<std::size_t>(count);
    }
    return true;
}

bool WorkerChannel::receiveBytes(void* bytes, std::size_t size, std::vector<Descriptor>& files) {
    auto* p = static_cast<std::byte*>(bytes);
    while (size > 0) {
        const ssize_t count = receiveWithDescriptors(socket_.get(), {p, size}, files);
        if (count <= 0) {
            return false;
        }
        p += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

std::optional<WorkerChannel::Message> WorkerChannel::receive() {
    Message message;
    std::array<std::byte, kHeadSize> head{};
    if (!receiveBytes(head.data(), head.size(), message.files)) {
        return std::nullopt;
    }
    const std::uint32_t size = lengthIn(head);
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
        const std::uint32_t size = lengthIn(partial_);
        const bool sizeKnown = partial_.size() >= kHeadSize;
        const std::size_t wanted = kHeadSize + (sizeKnown ? size : 0);
        if (size > kLongestMessage) {
            ended = true;
            return std::nullopt;
        }
        if (sizeKnown && partial_.size() == wanted) {
            auto message = messageOf({partial_.begin() + kHeadSize, partial_.end()}, {});
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
