#pragma once

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include <KRVQTProcessClient/Transports/KRVOperationTransport.h>

namespace krv {

/// A transport that answers as it is told, for tests. One thread.
///
/// Each call takes the next step of the script; a call beyond its end gets no reply. What was sent is kept.
class ScriptedTransport final : public KRVTransport {
public:
    using Step = std::function<std::shared_ptr<const Data>(const KRVOperationBase::Ref& sent)>;

    /// Answers with this record.
    ScriptedTransport& reply(const KRVOperationBase::Ref& record);
    /// Answers with bytes.
    ScriptedTransport& replyBytes(std::string bytes);
    /// Answers with nothing.
    ScriptedTransport& replyNothing();
    /// Raises an exception that counts as a communications failure.
    ScriptedTransport& unreachable(std::string reason = "unreachable");
    /// Raises an exception that does not.
    ScriptedTransport& fail(std::string reason);
    ScriptedTransport& then(Step step);

    std::shared_ptr<const Data> sendOperation(const KRVOperationBase::Ref& operation) override;
    [[nodiscard]] bool isThisACommunicationsFailure(const Exception& exception) const override;
    [[nodiscard]] bool serviceReadyToRock() override;
    [[nodiscard]] std::string description() const override { return "<ScriptedTransport>"; }

    /// What was sent, in order, as it was at that moment.
    [[nodiscard]] const std::vector<KRVOperationBase::Ref>& sent() const { return sent_; }
    [[nodiscard]] std::vector<std::int32_t> sentTypes() const;
    [[nodiscard]] std::size_t stepsLeft() const { return steps_.size(); }

    /// What serviceReadyToRock answers, call by call; true once it is used up.
    std::deque<bool> readiness;
    std::size_t readinessProbes = 0;

private:
    std::deque<Step> steps_;
    std::vector<KRVOperationBase::Ref> sent_;
};

}  // namespace krv
