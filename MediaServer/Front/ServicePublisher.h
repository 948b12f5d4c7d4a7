#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <KRVQTProcessClient/Platform/ServiceRecord.h>

namespace krv::server {

/// Announces the server's port, until it is destroyed: in a service record in the user's runtime folder, and as a DNS
/// service on the loopback interface only.
///
/// A name that another user's server has taken is published with a number behind it, which clients expect. Where the
/// machine does not allow publishing and there is no runtime folder, clients find the port by polling.
class ServicePublisher {
public:
    ServicePublisher(std::string name, std::uint16_t port);
    /// Withdraws the announcement.
    ~ServicePublisher();
    ServicePublisher(const ServicePublisher&) = delete;
    ServicePublisher& operator=(const ServicePublisher&) = delete;

    /// Restarts the responder if it has failed, and writes the record again if it is gone. Call this every few seconds.
    void restartIfFailed();

private:
    class Responder;
    void writeRecord();

    const std::string name_;
    const std::uint16_t port_;
    std::unique_ptr<ServiceRecordFile> record_;
    std::unique_ptr<Responder> responder_;
};

}  // namespace krv::server
