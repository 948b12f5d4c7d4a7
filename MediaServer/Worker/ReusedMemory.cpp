#include <cstdint>
#include <cstdlib>

#include <sys/mman.h>
#include <unistd.h>

#include <malloc.h>

#include <MediaServer/Worker/ReusedMemory.h>

namespace krv::server {
namespace {

/// The size of a large page on most processors.
constexpr std::uintptr_t kLargePage = std::uintptr_t{2} << 20;
/// By this much the heap grows at once. Enough for the frames of most jobs.
constexpr int kReserved = 64 << 20;
/// The largest that the C library accepts.
constexpr int kMostFromHeap = 32 << 20;
constexpr int kNeverReturned = 1 << 30;
/// What the C library puts in front of each block.
constexpr std::uintptr_t kBlockHeader = sizeof(std::size_t);

}  // namespace

void mergeFreedMemory() noexcept {
    ::mallopt(M_MXFAST, 0);
}

void reuseMemory() noexcept {
    ::mallopt(M_MMAP_THRESHOLD, kMostFromHeap);
    ::mallopt(M_TRIM_THRESHOLD, kNeverReturned);
    ::mallopt(M_TOP_PAD, kReserved);
    ::mallopt(M_ARENA_MAX, 1);  // a decoder's threads would have heaps of their own, of single pages
    // Makes the heap grow. The block ends where the first large page begins and is never freed: in front of it, memory
    // would come in single pages. It is not larger at first, because the C library writes behind it.
    void* const block = std::malloc(kLargePage - kBlockHeader);
    const auto start = reinterpret_cast<std::uintptr_t>(block);
    const std::uintptr_t begin = (start + 2 * kLargePage - 1) & ~(kLargePage - 1);
    const std::uintptr_t end = reinterpret_cast<std::uintptr_t>(::sbrk(0)) & ~(kLargePage - 1);
    if (start < end && begin < end && end - start < 2 * std::uintptr_t{kReserved}) {
        ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
        [[maybe_unused]] void* const shrunk = std::realloc(block, begin - start - kBlockHeader);
    } else {
        std::free(block);  // the heap cannot grow
    }
}

}  // namespace krv::server
