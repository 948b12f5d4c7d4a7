#include <array>
#include <cerrno>
#include <cstring>

#include <sys/socket.h>

#include <MediaServer/Protocol/DescriptorMessage.h>

namespace krv::server {
namespace {

using Control = std::array<char, CMSG_SPACE(sizeof(int) * kMostDescriptorsAtOnce)>;

}  // namespace

ssize_t sendWithDescriptors(int socket, std::span<const std::byte> bytes, std::span<const int> files, int flags) {
    alignas(cmsghdr) Control control{};
    iovec part{const_cast<std::byte*>(bytes.data()), bytes.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (!files.empty()) {
        message.msg_control = control.data();
        message.msg_controllen = CMSG_SPACE(files.size_bytes());
        cmsghdr* const header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(files.size_bytes());
        std::memcpy(CMSG_DATA(header), files.data(), files.size_bytes());
    }
    ssize_t count = 0;
    while ((count = ::sendmsg(socket, &message, flags | MSG_NOSIGNAL)) < 0 && errno == EINTR) {
    }
    return count;
}

ssize_t receiveWithDescriptors(int socket, std::span<std::byte> bytes, std::vector<Descriptor>& files) {
    alignas(cmsghdr) Control control{};
    iovec part{bytes.data(), bytes.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    ssize_t count = 0;
    do {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        count = ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
    } while (count < 0 && errno == EINTR);
    if (count <= 0) {
        return count;
    }
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header; header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
            const std::size_t received = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (std::size_t i = 0; i < received; ++i) {
                int fd = -1;
                std::memcpy(&fd, CMSG_DATA(header) + i * sizeof fd, sizeof fd);
                files.emplace_back(fd);
            }
        }
    }
    return count;
}

}  // namespace krv::server
