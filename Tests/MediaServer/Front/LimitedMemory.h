#pragma once

#include <cstddef>
#include <limits>

/// Replaces the allocation functions of its process, so that allocations can be made to fail.
namespace krv::test {

inline constexpr std::size_t kUnlimited = std::numeric_limits<std::size_t>::max();

/// Lets every larger allocation throw std::bad_alloc. Thread-safe.
void limitAllocations(std::size_t largest);

}  // namespace krv::test
