#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

namespace krv::media {

/// Fills the bytes with those of a file from an offset. Returns false if it cannot read all of them.
using ReadAt = std::function<bool(std::int64_t offset, std::span<std::byte> bytes)>;

/// Returns a function that reads from a descriptor, which it borrows. It throws Failure UnreadableSource after a read
/// error.
[[nodiscard]] ReadAt readAtDescriptor(int descriptor);

}  // namespace krv::media
