#pragma once

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include <KRVQTProcessClient/Transports/KRVOperationTransport.h>

namespace krv {

/// A transport that follows a test's script. For one thread.
///
/// Each call takes the next step of the script. A call after the last step gets no reply. Keeps all records sent.
class ScriptedTransport final : public KRVTransport {
public:
    using Step = std::function<std::shared_ptr<const Data>(const KRVOperationBase::Ref& sent)>;

    /// Replies with this record.
    ScriptedTransport& reply(const KRVOperationBase::Ref& record);
    /// Replies with bytes.
    ScriptedTransport& replyBytes(std::string bytes);
    /// Returns no reply.
    ScriptedTransport& replyNothing();
    /// Throws an exception that is a communications failure.
    ScriptedTransport& unreachable(std::string reason = "unreachable");
    /// Throws an exception that is not.
    ScriptedTransport& fail(std::string reason);
    ScriptedTransport& then(Step step);

    std::shared_ptr<const Data> sendOperation(const KRVOperationBase::Ref& operation) override;
    [[nodiscard]] bool isThisACommunicationsFailure(const Exception& exception) const override;
    [[nodiscard]] bool serviceReadyToRock() override;
    [[nodiscard]] std::string description() const override { return "<ScriptedTransport>"; }

    /// Returns copies of the records sent, in order.
    [[nodiscard]] const std::vector<KRVOperationBase::Ref>& sent() const { return sent_; }
    [[nodiscard]] std::vector<std::int32_t> sentTypes() const;
    [[nodiscard]] std::size_t stepsLeft() const { return steps_.size(); }

    /// The results of serviceReadyToRock, call by call; true after the last one.
    std::deque<bool> readiness;
    std::size_t readinessProbes = 0;

private:
    std::deque<Step> steps_;
    std::vector<KRVOperationBase::Ref> sent_;
};

}  // namespace krv
