// Workers that are killed at every stage of their work, 20 times or KRV_KILLS times, in the same way in every run; and
// the deaths of their template and of the server.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <thread>

#include "ServerFixture.h"

namespace krv::server {
namespace {

enum class Stage { Idle, Started, InProgress, NearTheEnd, Cancelling };
constexpr int kStages = 5;

class WorkerDeath : public Server {
protected:
    /// Returns the worker that has this file open, if there is one.
    std::optional<pid_t> workerOn(const std::string& source) const {
        for (const pid_t pid : workers()) {
            std::error_code failure;
            for (const auto& file : fs::directory_iterator(fmt::format("/proc/{}/fd", pid), failure)) {
                if (fs::read_symlink(file.path(), failure) == source) {
                    return pid;
                }
            }
        }
        return std::nullopt;
    }
    bool killWorkerOn(const std::string& source) const {
        const auto pid = workerOn(source);
        return pid && ::kill(*pid, SIGKILL) == 0;
    }
    /// Starts a conversion and returns its identifier.
    std::string begin(const std::string& source, const std::string& destination) const {
        return ask(R::encodeVideoOperation(source, destination))->uniqueID().value_or("");
    }
    R::Ref state(const std::string& id) const { return ask(R::progressAndCompletionOperation(id)); }
    static bool hasEnded(const R::Ref& state) { return state->completed() || state->cancelled() || state->error(); }
    R::Ref waitForEnd(const std::string& id) const {
        R::Ref last = state(id);
        while (!hasEnded(last)) {
            last = state(id);
        }
        return last;
    }
    static std::string contents(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    /// Converts the source and kills its worker at this stage. Returns the final state of the conversion.
    R::Ref convertAndKill(Stage stage, const std::string& source) {
        if (stage == Stage::Idle) {
            for (const pid_t pid : workers()) {
                if (!workerOn(companionSource) || pid != *workerOn(companionSource)) {
                    ::kill(pid, SIGKILL);
                }
            }
        }
        std::atomic<bool> ended{false};
        // The first reply to a request may be held, so a second thread kills the worker without waiting for it.
        std::thread killer([&] {
            const std::chrono::microseconds moment(stage == Stage::NearTheEnd ? random() % 600'000 : 0);
            const auto begun = std::chrono::steady_clock::now();
            while ((stage == Stage::Started || stage == Stage::NearTheEnd) && !ended) {
                if (std::chrono::steady_clock::now() - begun >= moment && killWorkerOn(source)) {
                    return;
                }
            }
        });
        const std::string id = begin(source, out());
        const float point = stage == Stage::InProgress ? static_cast<float>(random() % 100) / 300.0F : 0.0F;
        R::Ref last = state(id);
        if (stage == Stage::InProgress || stage == Stage::Cancelling) {
            while (!hasEnded(last) && last->progress() <= point) {
                last = state(id);
            }
            if (stage == Stage::Cancelling && random() % 2 == 0) {
                (void)ask(R::cancelOperation(id));
                killWorkerOn(source);
            } else {
                killWorkerOn(source);
                if (stage == Stage::Cancelling) {
                    (void)ask(R::cancelOperation(id));
                }
            }
        }
        last = waitForEnd(id);
        ended = true;
        killer.join();
        return last;
    }

    std::minstd_rand random{20261121};
    std::string companionSource;
};

TEST_F(WorkerDeath, AtAnyStageFailsItsOwnOperationAtMost) {
    const char* const wanted = std::getenv("KRV_KILLS");
    const int count = wanted ? std::atoi(wanted) : 20;
    start();
    companionSource = folder.write("companion.mov", contents(movie()));
    const std::string brief = folder.write("brief.mov", contents(movie()));
    const std::string lengthy = folder.write("lengthy.mov", contents(std::string(KRV_TEST_MEDIA) + "/longer.mov"));
    int killed = 0;
    int cancelled = 0;
    int completed = 0;
    for (int i = 0; i < count; ++i) {
        const auto stage = static_cast<Stage>(i % kStages);
        const std::string what = fmt::format("round {}, stage {}", i, i % kStages);
        std::ofstream(out()) << "old";
        const std::string companion = begin(companionSource, out("companion.mp4"));
        const auto end = convertAndKill(stage, stage == Stage::NearTheEnd || stage == Stage::Idle ? brief : lengthy);
        const auto companionEnd = waitForEnd(companion);
        EXPECT_TRUE(companionEnd->completed()) << what;
        EXPECT_EQ(companionEnd->error(), nullptr) << what;
        EXPECT_GT(fs::file_size(out("companion.mp4")), 1000U) << what;
        if (end->completed()) {
            ++completed;  // it was faster, or another worker died
            EXPECT_GT(fs::file_size(out()), 1000U) << what;
        } else {
            EXPECT_TRUE(contents(out()) == "old") << what;
            if (end->error()) {
                ++killed;
                EXPECT_EQ(end->error()->code(), 7) << what << ": " << end->error()->description();
                EXPECT_EQ(end->error()->localizedFailureReason(), "the worker was killed by signal 9 (Killed)");
            } else {
                ++cancelled;
                EXPECT_EQ(stage, Stage::Cancelling) << what;
            }
        }
        EXPECT_EQ(filesInOut(), 2U) << what;
        fs::remove(out("companion.mp4"));
        // Killed workers are replaced, and none is left over.
        waitUntil([this] { return workers().size() == 2; });
        ASSERT_EQ(status()["pid"], process->pid()) << what;
    }
    std::cout << "[ measured ] " << count << " kills: " << killed << " failed, " << cancelled << " cancelled, "
              << completed << " completed\n";
    EXPECT_GE(killed, count / 10);
}

TEST_F(WorkerDeath, OfTheTemplateFailsNothing) {
    start();
    waitUntil([this] { return workers().size() == 2; });
    const auto templates = children("KRVTemplate");
    ASSERT_EQ(templates.size(), 1U);
    const std::string running = begin(std::string(KRV_TEST_MEDIA) + "/longer.mov", out("running.mp4"));
    (void)worker();
    ASSERT_EQ(::kill(templates[0], SIGKILL), 0);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(convert(movie(), out()), nullptr);
    }
    EXPECT_TRUE(waitForEnd(running)->completed());
    waitUntil([this] { return workers().size() == 2; });
    ASSERT_EQ(children("KRVTemplate").size(), 1U);
    EXPECT_NE(children("KRVTemplate")[0], templates[0]);
}

TEST_F(WorkerDeath, FollowsTheServers) {
    start();
    waitUntil([this] { return workers().size() == 2; });
    const std::string running = begin(std::string(KRV_TEST_MEDIA) + "/longer.mov", out());
    std::vector<pid_t> all{worker()};
    for (const pid_t pid : workers()) {
        all.push_back(pid);
    }
    all.push_back(children("KRVTemplate").at(0));
    process->signal(SIGKILL);
    process->wait();
    for (const pid_t pid : all) {
        waitUntil([pid] {
            std::ifstream in(fmt::format("/proc/{}/stat", pid));
            const std::string stat{std::istreambuf_iterator<char>(in), {}};
            return stat.empty() || stat.find(") Z ") != std::string::npos;
        });
    }
    EXPECT_EQ(filesInOut(), 0U);
}

}  // namespace
}  // namespace krv::server
