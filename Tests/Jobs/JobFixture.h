#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Jobs/JobRun.h>
#include <KRVQTProcessClient/Operations/OperationErrors.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeHTTPLoop.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeRunLoop.h>

namespace krv {

/// A link whose server the test brings and takes away.
class FakeLink final : public ServerLink {
public:
    explicit FakeLink(HTTPLoop& http)
        : http_(http) {}

    Token whenReady(Waiter waiter) override {
        waiters_.emplace(++last_, std::move(waiter));
        if (port_ > 0) {
            answerSoon(std::nullopt);
        }
        return last_;
    }
    void drop(Token token) override { waiters_.erase(token); }
    [[nodiscard]] long port() const override { return port_; }
    void lost(long port) override {
        losses.push_back(port);
        port_ = 0;
    }

    void serverIsOn(long port) {
        port_ = port;
        answerSoon(std::nullopt);
    }
    void answerSoon(std::optional<Failure> failure) {
        http_.post([this, failure = std::move(failure)] {
            for (auto& [token, waiter] : std::exchange(waiters_, {})) {
                waiter.answer(failure);
            }
        });
    }
    void tellReason(const std::string& reason) {
        for (auto& [token, waiter] : waiters_) {
            waiter.waiting(reason);
        }
    }
    [[nodiscard]] std::size_t waiters() const { return waiters_.size(); }

    std::vector<long> losses;

private:
    HTTPLoop& http_;
    std::map<Token, Waiter> waiters_;
    Token last_ = 0;
    long port_ = 0;
};

/// A job in virtual time, and a server that the test plays.
class JobFixture : public testing::Test {
protected:
    JobFixture() {
        job->whenEnded([this](const JobCore::Outcome& ended) { outcome = ended; });
    }

    [[nodiscard]] JobServices services() { return {http, link, clock}; }

    /// Returns the type of the only request that is pending, 0 if there is none.
    std::int32_t pendingType() {
        const auto record = pendingRecord();
        return record ? record->operationType() : 0;
    }
    KRVOperationBase::Ref pendingRecord() {
        const auto pending = http.pending();
        EXPECT_LE(pending.size(), 1U);
        return pending.empty() ? nullptr : recordIn(pending.front());
    }
    static KRVOperationBase::Ref recordIn(const FakeHTTPLoop::Pending& pending) {
        return KRVOperationBase::operationFromData(std::make_shared<const Data>(pending.request.body.value_or(Data())));
    }
    /// Replies to the request of this type.
    void reply(std::int32_t type, HTTPResponse response) {
        for (const auto& each : http.pending()) {
            if (recordIn(each)->operationType() == type) {
                http.reply(each.token, std::move(response));
                return;
            }
        }
        ADD_FAILURE() << "no request of type " << type << " is pending";
    }
    static HTTPResponse holding(const KRVOperationBase& record) {
        return {.body = record.convertToData(), .status = 200, .error = {}};
    }
    static HTTPResponse broken() { return {.body = {}, .status = 0, .error = "Connection refused"}; }
    static HTTPResponse erroneous(OperationErrorCode code) {
        const auto record = KRVOperationBase::encodeVideoOperation("/in.mov", "/out.mp4");
        record->setError(Error::make(std::string(kMediaServerErrorDomain), static_cast<std::int64_t>(code),
                                     {{NSLocalizedDescriptionKey, "Cannot convert in.mov."}}));
        return holding(*record);
    }
    [[nodiscard]] std::optional<Failure> failure() { return outcome ? outcome->failure : std::nullopt; }
    [[nodiscard]] bool succeeded() const { return outcome && outcome->value; }

    FakeClock clock;
    FakeRunLoop loop{clock};
    const RunLoop::Replacement replacement{loop};
    FakeHTTPLoop http{clock};
    FakeLink link{http};
    std::shared_ptr<JobState> job = std::make_shared<JobState>(ProgressCallback(), JobControl());
    std::optional<JobCore::Outcome> outcome;
};

}  // namespace krv
