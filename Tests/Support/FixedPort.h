#pragma once

#include <KRVQTProcessClient/Discovery/ServicePort.h>

namespace krv::test {

/// A port that a test knows already.
class FixedPort final : public ServicePort {
public:
    explicit FixedPort(long port)
        : port_(port) {}
    [[nodiscard]] long servicePortNumber() const override { return port_; }

private:
    const long port_;
};

}  // namespace krv::test
