#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include <KRVQTProcessClient/Client/KRVQuicktimeProcessClient.h>
#include <KRVQTProcessClient/Jobs/ControlRun.h>
#include <KRVQTProcessClient/Jobs/JobRun.h>
#include <KRVQTProcessClient/Jobs/ServerSearch.h>

namespace krv {

/// Carries out jobs on one thread. Thread-safe.
///
/// It sends the server only as many operations as that can use, and keeps the others in the order in which they were
/// added. So a thousand jobs neither fill the server's queue nor need a thousand connections. Short work does not wait
/// behind long work, here as on the server.
class JobEngine {
public:
    /// Returns the process's engine that launches servers, or the one that does not. Created on first use and never
    /// destroyed. Throws as Media does.
    [[nodiscard]] static JobEngine& launching();
    [[nodiscard]] static JobEngine& looking();

    /// Returns what launches servers, null for the engine that does not.
    [[nodiscard]] std::shared_ptr<ServerRunner> runner() const { return client_ ? client_->serverRunner() : nullptr; }

    void add(std::shared_ptr<JobState> state, JobPlan plan, JobLimits limits);
    void add(std::shared_ptr<JobState> state, std::function<ControlPlan()> makePlan, Clock::Duration patience);

private:
    /// client: launches servers; null for none. thread: its name, borrowed.
    JobEngine(std::shared_ptr<KRVQuicktimeProcessClient> client, const char* thread);

    struct Lane {
        std::deque<std::shared_ptr<JobRun>> waiting;
        std::vector<std::shared_ptr<JobRun>> running;
        bool updateIsPosted = false;
    };
    void enqueue(const std::shared_ptr<JobState>& state, JobPlan plan, JobLimits limits);
    void postUpdate(Lane& lane);
    static void update(Lane& lane);

    const std::shared_ptr<KRVQuicktimeProcessClient> client_;
    // For the thread of the loop, like all that they refer to.
    Lane long_;
    Lane short_;
    std::unique_ptr<HTTPLoop> http_;
    std::unique_ptr<ServerSearch> link_;
};

}  // namespace krv
