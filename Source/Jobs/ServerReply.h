#pragma once

#include <cstdint>
#include <string>

#include <KRVQTProcessClient/Operations/KRVOperationBase.h>
#include <KRVQTProcessClient/Platform/Clock.h>
#include <KRVQTProcessClient/Platform/HTTPClient.h>

namespace krv {

/// The server's reply to a request, or why there is none.
struct ServerReply {
    enum class Kind : std::uint8_t {
        Record,
        /// The server takes no work at this moment; record says why.
        Refused,
        /// Nothing complete has arrived; why says what happened.
        Lost,
        /// Something has arrived that is not a record.
        Garbage,
    };
    Kind kind = Kind::Lost;
    KRVOperationBase::Ref record{};
    std::string why{};
};

[[nodiscard]] ServerReply replyIn(const HTTPResponse& response);

/// Returns the request that sends a record. Throws Exception "NSInvalidArgumentException" if it cannot be archived.
[[nodiscard]] HTTPRequest requestTo(long port, const KRVOperationBase& record, Clock::Duration timeout);
/// Returns the request for the server's status.
[[nodiscard]] HTTPRequest statusRequest(long port, Clock::Duration timeout);

}  // namespace krv
