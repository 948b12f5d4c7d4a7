#pragma once

#include <KRVQTProcessClient/Discovery/ServicePort.h>

namespace krv::test {

/// Reports a port that the test already knows.
class FixedPort final : public ServicePort {
public:
    explicit FixedPort(long port)
        : port_(port) {}
    [[nodiscard]] long servicePortNumber() const override { return port_; }

private:
    const long port_;
};

}  // namespace krv::test
