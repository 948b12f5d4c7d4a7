#include <utility>

#include <KRVQTProcessClient/Transports/Fakes/ScriptedTransport.h>

namespace krv {
namespace {

std::shared_ptr<const Data> bytesOf(const KRVOperationBase& record) {
    return std::make_shared<const Data>(record.convertToData());
}

}  // namespace

ScriptedTransport& ScriptedTransport::then(Step step) {
    steps_.push_back(std::move(step));
    return *this;
}

ScriptedTransport& ScriptedTransport::reply(const KRVOperationBase::Ref& record) {
    return then([record](const auto&) { return bytesOf(*record); });
}

ScriptedTransport& ScriptedTransport::replyBytes(std::string bytes) {
    return then([bytes = std::move(bytes)](const auto&) {
        const auto* p = reinterpret_cast<const std::byte*>(bytes.data());
        return std::make_shared<const Data>(p, p + bytes.size());
    });
}

ScriptedTransport& ScriptedTransport::replyNothing() {
    return then([](const auto&) { return nullptr; });
}

ScriptedTransport& ScriptedTransport::unreachable(std::string reason) {
    return then([reason = std::move(reason)](const auto&) -> std::shared_ptr<const Data> {
        throw Exception(std::string(kHTTPServerNSURLConnectionError), reason);
    });
}

ScriptedTransport& ScriptedTransport::fail(std::string reason) {
    return then([reason = std::move(reason)](const auto&) -> std::shared_ptr<const Data> {
        throw Exception("SomethingElse", reason);
    });
}

std::shared_ptr<const Data> ScriptedTransport::sendOperation(const KRVOperationBase::Ref& operation) {
    sent_.push_back(KRVOperationBase::operationFromData(bytesOf(*operation)));
    if (steps_.empty()) {
        return nullptr;
    }
    const Step step = std::move(steps_.front());
    steps_.pop_front();
    return step(operation);
}

bool ScriptedTransport::isThisACommunicationsFailure(const Exception& exception) const {
    return exception.name() == kHTTPServerNSURLConnectionError;
}

bool ScriptedTransport::serviceReadyToRock() {
    ++readinessProbes;
    if (readiness.empty()) {
        return true;
    }
    const bool ready = readiness.front();
    readiness.pop_front();
    return ready;
}

std::vector<std::int32_t> ScriptedTransport::sentTypes() const {
    std::vector<std::int32_t> types;
    for (const auto& record : sent_) {
        types.push_back(record->operationType());
    }
    return types;
}

}  // namespace krv
