#pragma once

namespace krv::test {

/// Leaves this thread no memory that operator new could return, until it is destroyed.
class OutOfMemory {
public:
    OutOfMemory();
    ~OutOfMemory();
    OutOfMemory(const OutOfMemory&) = delete;
    OutOfMemory& operator=(const OutOfMemory&) = delete;
};

}  // namespace krv::test
