#pragma once

#include <functional>
#include <memory>
#include <optional>

#include <KRVQTProcessClient/Jobs/JobRun.h>

namespace krv {

/// A few requests to the server, one after the other, such as those for its status.
struct ControlPlan {
    /// The outcome of a step: another request, or the end.
    struct Next {
        std::optional<HTTPRequest> request{};
        JobCore::Outcome outcome{};
    };
    /// Called with null at first, and then with the response to each request.
    std::function<Next(long port, const HTTPResponse* response)> step{};
};

[[nodiscard]] ControlPlan serverStatusPlan();
[[nodiscard]] ControlPlan cancelAllWorkPlan();
[[nodiscard]] ControlPlan shutDownServerPlan();

/// Carries out such requests. If the server that was known does not respond any more, they are sent once more, to another
/// one. All members are for the thread of the HTTP loop.
class ControlRun final : public std::enable_shared_from_this<ControlRun> {
public:
    /// makePlan: called for each attempt.
    ControlRun(JobServices services, std::shared_ptr<JobState> state, std::function<ControlPlan()> makePlan,
               Clock::Duration patience);
    void start();
    void cancel();

private:
    void proceed(const HTTPResponse* response);
    void end(JobCore::Outcome outcome);

    const JobServices services_;
    const std::shared_ptr<JobState> state_;
    const std::function<ControlPlan()> makePlan_;
    ControlPlan plan_{};
    bool repeated_ = false;
    const Clock::Duration patience_;
    long port_ = 0;
    std::optional<ServerLink::Token> waiting_;
    std::optional<HTTPLoop::Token> request_;
};

}  // namespace krv
