#include <memory>

#include <fmt/format.h>

#include <KRVQTProcessClient/Jobs/ServerReply.h>
#include <KRVQTProcessClient/Operations/OperationErrors.h>

namespace krv {

ServerReply replyIn(const HTTPResponse& response) {
    using Kind = ServerReply::Kind;
    if (!response.body || response.error) {
        return {.kind = Kind::Lost, .record = {}, .why = response.error.value_or("it does not respond")};
    }
    auto record = KRVOperationBase::operationFromData(std::make_shared<const Data>(*response.body));
    if (!record) {
        return {.kind = Kind::Garbage,
                .record = {},
                .why = fmt::format("its response is not a record (HTTP status {})", response.status)};
    }
    const auto error = record->error();
    const bool refused = error && error->domain() == kMediaServerErrorDomain &&
                         error->code() == static_cast<std::int64_t>(OperationErrorCode::CannotAcceptWork);
    return {.kind = refused ? Kind::Refused : Kind::Record, .record = std::move(record), .why = {}};
}

HTTPRequest requestTo(long port, const KRVOperationBase& record, Clock::Duration timeout) {
    return {.url = fmt::format("http://localhost:{}", port), .body = record.convertToData(), .timeout = timeout};
}

HTTPRequest statusRequest(long port, Clock::Duration timeout) {
    return {.url = fmt::format("http://localhost:{}/status", port), .body = std::nullopt, .timeout = timeout};
}

}  // namespace krv
