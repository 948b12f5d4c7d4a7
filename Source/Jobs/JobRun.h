#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <KRVQTProcessClient/Client/OperationWait.h>
#include <KRVQTProcessClient/Jobs/JobPlan.h>
#include <KRVQTProcessClient/Jobs/JobState.h>
#include <KRVQTProcessClient/Jobs/ServerLink.h>
#include <KRVQTProcessClient/Jobs/ServerReply.h>
#include <KRVQTProcessClient/Platform/HTTPLoop.h>

namespace krv {

/// The services that all runs share. They must outlive the runs.
struct JobServices {
    HTTPLoop& http;
    ServerLink& link;
    const Clock& clock;
};

struct JobLimits {
    /// How long there may be no progress.
    Clock::Duration stall;
    /// How long a server may take to respond.
    Clock::Duration patience;
};

/// Carries out one job: waits for the server, sends the operation, follows it and fetches its result. JobRun.cpp explains
/// the course. All members are for the thread of the HTTP loop.
class JobRun final : public std::enable_shared_from_this<JobRun> {
public:
    /// ended: called once, when the job has ended.
    JobRun(JobServices services, std::shared_ptr<JobState> state, JobPlan plan, JobLimits limits,
           std::function<void()> ended);

    /// Reports how many jobs are before this one, which has not been started.
    void queued(std::int64_t position);
    void start();
    void cancel();
    [[nodiscard]] bool hasEnded() const { return phase_ == Phase::Ended; }

private:
    enum class Phase : std::uint8_t { Queued, WaitingForServer, Sending, Following, Fetching, Ended };
    using Step = void (JobRun::*)();
    using ReplyStep = void (JobRun::*)(const ServerReply&);

    // The course.

    void waitForServer(Step next);
    void send();
    void sent(const ServerReply& reply);
    void refused(const ServerReply& reply);
    void ask();
    void asked(const ServerReply& reply);
    void advance(const KRVOperationBase::Ref& state);
    /// Returns true if the reply is a record. If not, repeats the step where that makes sense, else fails the job.
    [[nodiscard]] bool requireRecord(const ServerReply& reply, Step again);
    void notUnderstood(const ServerReply& reply);
    void serverIsSilent();
    /// Another job may have found a new server.
    void usePortOfLink();
    void fetch();
    void fetched(const ServerReply& reply);
    void serverForgot();
    void serverWasLost(const ServerReply& reply, Step next);

    // Cancelling.

    void cancelOnServer();
    void askForOutcome(const ServerReply& reply);
    void outcomeAfterCancel(const ServerReply& reply);

    void succeed(const KRVOperationBase::Ref& finished);
    void fail(Failure failure);
    void failCancelled();
    void end(JobCore::Outcome outcome);

    void request(const KRVOperationBase& record, Clock::Duration timeout, ReplyStep step);
    void after(Clock::Duration delay, Step step);
    template <typename Function>
    void guarded(const Function& function);
    void report(Progress::State state, std::string waitingFor = {}, std::optional<std::int64_t> position = {});

    const JobServices services_;
    const std::shared_ptr<JobState> state_;
    const JobPlan plan_;
    const JobLimits limits_;
    const std::function<void()> ended_;

    Phase phase_ = Phase::Queued;
    int attempt_ = 0;
    long port_ = 0;
    bool cancelling_ = false;
    KRVOperationBase::Ref record_;
    std::optional<OperationWait> wait_;
    double fraction_ = 0;
    std::optional<Clock::TimePoint> workBegan_;
    Clock::TimePoint lastReply_{};
    Clock::TimePoint asked_{};
    std::optional<Clock::TimePoint> refusedSince_;
    std::optional<ServerLink::Token> waiting_;
    std::optional<HTTPLoop::Token> request_;
    std::optional<HTTPLoop::Token> timer_;
};

}  // namespace krv
