#include "OutOfMemory.h"

#include <cstdlib>
#include <new>

namespace {

thread_local bool outOfMemory = false;

}  // namespace

// In a source of their own: where the compiler sees both, it takes free() for the wrong counterpart of new.
void* operator new(std::size_t size) {
    void* const memory = outOfMemory ? nullptr : std::malloc(size);
    if (!memory) {
        throw std::bad_alloc();
    }
    return memory;
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace krv::test {

OutOfMemory::OutOfMemory() {
    outOfMemory = true;
}

OutOfMemory::~OutOfMemory() {
    outOfMemory = false;
}

}  // namespace krv::test
