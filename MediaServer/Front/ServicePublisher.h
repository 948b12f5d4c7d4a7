#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace krv::server {

/// Announces the server's port as a DNS service, on the loopback interface only, until it is destroyed.
///
/// A name that another user's server has taken is published with a number behind it, which clients expect. Where the
/// machine does not allow publishing, clients find the port by polling.
class ServicePublisher {
public:
    ServicePublisher(std::string name, std::uint16_t port);
    /// Withdraws the announcement.
    ~ServicePublisher();
    ServicePublisher(const ServicePublisher&) = delete;
    ServicePublisher& operator=(const ServicePublisher&) = delete;

    /// Restarts the responder if it has failed. Call this every few seconds.
    void restartIfFailed();

private:
    class Responder;
    const std::string name_;
    const std::uint16_t port_;
    std::unique_ptr<Responder> responder_;
};

}  // namespace krv::server
