#include <cstdint>
#include <cstdlib>

#include <sys/mman.h>

#include <malloc.h>

#include <MediaServer/Worker/ReusedMemory.h>

namespace krv::server {
namespace {

/// The size of a large page on most processors.
constexpr std::uintptr_t kLargePage = std::uintptr_t{2} << 20;
/// Enough for most jobs. The heap grows by single pages beyond it.
constexpr std::size_t kReserved = std::size_t{16} << 20;
/// The largest that the C library accepts.
constexpr int kMostFromHeap = 32 << 20;
constexpr int kNeverReturned = 1 << 30;

}  // namespace

void reuseMemory() noexcept {
    ::mallopt(M_MMAP_THRESHOLD, kMostFromHeap);
    ::mallopt(M_TRIM_THRESHOLD, kNeverReturned);
    // Becomes the end of the heap. None of it is used yet.
    void* const reserved = std::malloc(kReserved);
    const auto begin = (reinterpret_cast<std::uintptr_t>(reserved) + kLargePage - 1) & ~(kLargePage - 1);
    const auto end = (reinterpret_cast<std::uintptr_t>(reserved) + kReserved) & ~(kLargePage - 1);
    if (reserved && begin < end) {
        ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
    }
    std::free(reserved);
}

}  // namespace krv::server
