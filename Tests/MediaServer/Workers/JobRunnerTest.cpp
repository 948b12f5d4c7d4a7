// Jobs in worker processes that lie.
#include <filesystem>
#include <future>
#include <string>

#include <gtest/gtest.h>

#include "TemporaryFolder.h"
#include "WaitUntil.h"
#include <MediaServer/Workers/JobRunner.h>

namespace krv::server {
namespace {

class LyingWorkers : public testing::TestWithParam<const char*> {
protected:
    LyingWorkers() { std::filesystem::create_symlink(KRV_LYING_WORKER, folder_.path() / GetParam()); }

    test::TemporaryFolder folder_;
    WorkerPool pool_{(folder_.path() / GetParam()).string(), 1};
    JobRunner runner_{pool_};
};

TEST_P(LyingWorkers, DoNotKeepTheirJobFromBeingCancelled) {
    Cancellation cancellation;
    auto outcome = std::async(std::launch::async, [&] {
        return runner_.run(*KRVOperationBase::provideMetadataFor("/a.mov"), {}, cancellation, [](double) {});
    });
    const auto marker = folder_.path() / (std::string(GetParam()) + ".read");
    test::waitUntil([&] { return std::filesystem::exists(marker); });
    cancellation.request();
    EXPECT_EQ(outcome.get().kind, Outcome::Kind::Cancelled);
}

INSTANTIATE_TEST_SUITE_P(Messages, LyingWorkers, testing::Values("HalfLength", "HalfRecord", "Silent"),
                         [](const auto& test) { return std::string(test.param); });

}  // namespace
}  // namespace krv::server
