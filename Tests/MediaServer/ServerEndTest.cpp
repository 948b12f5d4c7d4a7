// When the real server ends, and what becomes of the work it has.
#include <csignal>

#include "ServerFixture.h"

namespace krv::server {
namespace {

TEST_F(Server, EndsWhenItIsAskedTo) {
    start();
    EXPECT_TRUE(client->queueShutdownOfCurrentServer());
    EXPECT_EQ(process->wait(), 0);
    start();
    process->signal(SIGTERM);
    EXPECT_EQ(process->wait(), 0);
}

TEST_F(Server, FinishesWhatRunsBeforeItEnds) {
    start();
    observer->onProgress = [this, asked = false](const R&, float) mutable {
        if (!asked) {
            asked = true;
            process->signal(SIGTERM);
        }
        return true;
    };
    EXPECT_EQ(convert(std::string(KRV_TEST_MEDIA) + "/long.mov", out()), nullptr);
    EXPECT_EQ(process->wait(), 0);
    EXPECT_GT(fs::file_size(out()), 1000U);
}

TEST_F(Server, ASecondSignalCancelsWhatRuns) {
    start();
    observer->onProgress = [this, asked = false](const R&, float) mutable {
        if (!asked) {
            asked = true;
            process->signal(SIGTERM);
            while (status()["running"] == 1) {
                process->signal(SIGTERM);
            }
        }
        return true;
    };
    std::shared_ptr<const Error> error;
    try {
        client->convertMovie(std::string(KRV_TEST_MEDIA) + "/long.mov", out(), 1, false, observer, &error);
    } catch (const Exception&) {
        // It may be gone before the cancellation is told.
        SUCCEED();
    }
    EXPECT_EQ(process->wait(), 0);
    EXPECT_EQ(filesInOut(), 0U);
}

TEST_F(Server, EndsWhenNobodyNeedsIt) {
    start({"-idleTimeout", "1"});
    EXPECT_EQ(process->wait(), 0);
}

}  // namespace
}  // namespace krv::server
