#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <new>
#include <stdexcept>

#include <sys/mman.h>

#include "Script.h"

namespace krv::test_kit {

/// What outlives a serving process: how many requests of each type have arrived, so that a rule for the second one also
/// holds for the server that has replaced the first; which gates are open; and the port. Shared with the processes that are forked later.
/// Thread-safe.
class SharedState {
public:
    SharedState() {
        void* const memory =
            ::mmap(nullptr, sizeof(Contents), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) {
            throw std::runtime_error("no shared memory");
        }
        contents_ = new (memory) Contents;
    }
    ~SharedState() { ::munmap(contents_, sizeof(Contents)); }
    SharedState(const SharedState&) = delete;
    SharedState& operator=(const SharedState&) = delete;

    /// Counts a request and returns its number, from 1. Unknown types are counted together.
    [[nodiscard]] std::uint32_t nextRequest(std::int32_t type) {
        const bool known = type > 0 && static_cast<std::size_t>(type) < kTypes;
        return ++contents_->requests[known ? static_cast<std::size_t>(type) : 0];
    }
    /// Counts an operation and returns its number, from 1.
    [[nodiscard]] std::uint32_t nextOperation() { return ++contents_->operations; }

    /// The port on which the latest server listened; 0 before the first.
    [[nodiscard]] std::uint16_t port() const { return contents_->port; }
    void setPort(std::uint16_t port) { contents_->port = port; }

    [[nodiscard]] bool isOpen(std::size_t gate) const { return contents_->open[gate]; }
    void open(std::size_t gate) { contents_->open[gate] = true; }

private:
    static constexpr std::size_t kTypes = 32;
    struct Contents {
        std::array<std::atomic<std::uint32_t>, kTypes> requests{};
        std::atomic<std::uint32_t> operations{0};
        std::array<std::atomic<bool>, Script::kMostGates> open{};
        std::atomic<std::uint16_t> port{0};
    };

    Contents* contents_;
};

}  // namespace krv::test_kit
