#include "LimitedMemory.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace krv::test {
namespace {

std::atomic<std::size_t> largestAllocation{kUnlimited};

}  // namespace

void limitAllocations(std::size_t largest) {
    largestAllocation = largest;
}

}  // namespace krv::test

namespace {

void* allocate(std::size_t size) {
    return size > krv::test::largestAllocation ? nullptr : std::malloc(size == 0 ? 1 : size);
}

}  // namespace

void* operator new(std::size_t size) {
    if (void* const memory = allocate(size)) {
        return memory;
    }
    throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return allocate(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
