#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "FakeOperations.h"

namespace krv::test_kit {

/// The HTTP end of the fake server: a thread per connection, so that a handler may block.
class HTTPEnd {
public:
    using Handler = std::function<Response(const KRVOperationBase::Ref& request)>;

    /// Listens on that port of the loopback interface; 0: on any free one. Throws std::runtime_error on failure.
    HTTPEnd(std::uint16_t port, Handler handler);
    ~HTTPEnd();
    HTTPEnd(const HTTPEnd&) = delete;
    HTTPEnd& operator=(const HTTPEnd&) = delete;

    [[nodiscard]] std::uint16_t port() const;

private:
    struct Internals;
    std::unique_ptr<Internals> internals_;
};

}  // namespace krv::test_kit
