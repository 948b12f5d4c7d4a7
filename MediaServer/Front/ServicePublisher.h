#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace krv::server {

/// Announces the server's port as a DNS service, on the loopback interface only, until the object goes.
///
/// A name that is taken (by another user's server) is published with a number behind it; clients know that. A machine
/// that does not let it publish is no failure: clients find the port by polling there.
class ServicePublisher {
public:
    ServicePublisher(std::string name, std::uint16_t port);
    /// Takes the announcement back.
    ~ServicePublisher();
    ServicePublisher(const ServicePublisher&) = delete;
    ServicePublisher& operator=(const ServicePublisher&) = delete;

    /// Begins anew when the responder has given up. To be called now and then.
    void tend();

private:
    class Responder;
    const std::string name_;
    const std::uint16_t port_;
    std::unique_ptr<Responder> responder_;
};

}  // namespace krv::server
