#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

namespace krv::media {

/// Fills the bytes with those of a file from an offset. Returns false if it cannot read all of them.
using ReadAt = std::function<bool(std::int64_t offset, std::span<std::byte> bytes)>;

/// Read and write all of the bytes at an offset of a file. On failure return false and set errno: EIO if the file ends
/// before, ENOSPC if nothing can be written.
[[nodiscard]] bool readAll(int descriptor, std::span<std::byte> bytes, std::int64_t offset);
[[nodiscard]] bool writeAll(int descriptor, std::span<const std::byte> bytes, std::int64_t offset);

/// Returns a function that reads from a descriptor, which it borrows. It throws Failure UnreadableSource after a read
/// error.
[[nodiscard]] ReadAt readAtDescriptor(int descriptor);

}  // namespace krv::media
