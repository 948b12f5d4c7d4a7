#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include <sys/types.h>

#include <MediaServer/Protocol/Descriptor.h>

/// Messages on a Unix socket that carry open descriptors.
namespace krv::server {

/// The kernel allows at most 253 in one message.
inline constexpr std::size_t kMostDescriptorsAtOnce = 250;

/// Sends bytes, at least one, and at most kMostDescriptorsAtOnce descriptors, which are borrowed. flags: as for
/// sendmsg(); with MSG_DONTWAIT, it never blocks. Returns how many bytes were sent, which all descriptors accompany, or
/// -1 and sets errno. Continues after a signal.
[[nodiscard]] ssize_t sendWithDescriptors(int socket, std::span<const std::byte> bytes, std::span<const int> files,
                                          int flags = 0);

/// Blocks until something has arrived and returns how many bytes that is: 0 at the end of the stream, -1 with errno
/// after a failure. Adds the descriptors that accompany it to files. Continues after a signal.
[[nodiscard]] ssize_t receiveWithDescriptors(int socket, std::span<std::byte> bytes, std::vector<Descriptor>& files);

}  // namespace krv::server
