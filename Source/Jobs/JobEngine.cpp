#include <algorithm>
#include <thread>
#include <utility>

#include <KRVQTProcessClient/Client/ReliabilityProxy.h>
#include <KRVQTProcessClient/Jobs/JobEngine.h>

namespace krv {
namespace {

/// How many operations of one lane the server gets at a time: more than it has processors, so that it never has to wait
/// for the next one, and few enough that jobs of other applications do not wait behind all of ours.
std::size_t atATime() {
    constexpr std::size_t kFewest = 16;
    return std::max<std::size_t>(kFewest, 2 * std::thread::hardware_concurrency());
}

/// Returns the shared client, without the proxy that repeats calls.
std::shared_ptr<KRVQuicktimeProcessClient> sharedClient() {
    const auto shared = KRVQuicktimeProcessClient::defaultClient();
    if (const auto proxy = std::dynamic_pointer_cast<ReliabilityProxy>(shared)) {
        return std::dynamic_pointer_cast<KRVQuicktimeProcessClient>(proxy->realOperations());
    }
    return std::dynamic_pointer_cast<KRVQuicktimeProcessClient>(shared);
}

/// Makes a run cancel itself on the thread of the loop when its handle is cancelled.
template <typename Run>
void cancelFrom(JobState& state, HTTPLoop& http, const std::shared_ptr<Run>& run) {
    state.onCancel([&http, weak = std::weak_ptr(run)] {
        http.post([weak] {
            if (const auto cancelled = weak.lock()) {
                cancelled->cancel();
            }
        });
    });
}

}  // namespace

JobEngine& JobEngine::launching() {
    static auto* const engine = new JobEngine(sharedClient(), "KRVJobs");
    return *engine;
}

JobEngine& JobEngine::looking() {
    static auto* const engine = new JobEngine(nullptr, "KRVControl");
    return *engine;
}

JobEngine::JobEngine(std::shared_ptr<KRVQuicktimeProcessClient> client, const char* thread)
    : client_(std::move(client))
    , http_(HTTPLoop::start(thread))
    , link_(std::make_unique<ServerSearch>(*http_, runner())) {}

void JobEngine::add(std::shared_ptr<JobState> state, JobPlan plan, JobLimits limits) {
    http_->post([this, state = std::move(state), plan = std::move(plan), limits]() mutable {
        enqueue(state, std::move(plan), limits);
    });
}

void JobEngine::enqueue(const std::shared_ptr<JobState>& state, JobPlan plan, JobLimits limits) {
    Lane& lane = plan.isShort ? short_ : long_;
    const auto run = std::make_shared<JobRun>(JobServices{*http_, *link_, Clock::steady()}, state, std::move(plan),
                                              limits, [this, &lane] { postUpdate(lane); });
    cancelFrom(*state, *http_, run);
    lane.waiting.push_back(run);
    postUpdate(lane);
}

void JobEngine::postUpdate(Lane& lane) {
    if (!std::exchange(lane.updateIsPosted, true)) {
        http_->post([&lane] { update(lane); });
    }
}

void JobEngine::update(Lane& lane) {
    lane.updateIsPosted = false;
    const auto hasEnded = [](const std::shared_ptr<JobRun>& run) { return run->hasEnded(); };
    std::erase_if(lane.running, hasEnded);
    std::erase_if(lane.waiting, hasEnded);
    while (!lane.waiting.empty() && lane.running.size() < atATime()) {
        const auto run = std::move(lane.waiting.front());
        lane.waiting.pop_front();
        lane.running.push_back(run);
        run->start();
    }
    auto before = static_cast<std::int64_t>(lane.running.size());
    for (const auto& run : lane.waiting) {
        run->queued(before++);
    }
}

void JobEngine::add(std::shared_ptr<JobState> state, std::function<ControlPlan()> makePlan, Clock::Duration patience) {
    http_->post([this, state = std::move(state), makePlan = std::move(makePlan), patience]() mutable {
        const auto run = std::make_shared<ControlRun>(JobServices{*http_, *link_, Clock::steady()}, state,
                                                      std::move(makePlan), patience);
        cancelFrom(*state, *http_, run);
        run->start();
    });
}

}  // namespace krv
