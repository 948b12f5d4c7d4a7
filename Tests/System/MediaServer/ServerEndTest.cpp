// When the real server ends, and what becomes of the work it has.
#include <csignal>
#include <functional>
#include <utility>

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

/// Runs a conversion, and in the middle of it what is given.
class Ending : public Server {
protected:
    void inTheMiddleOfWork(const std::function<void()>& act) {
        start();
        observer->onProgress = [act, acted = false](const R&, float) mutable {
            if (!std::exchange(acted, true)) {
                act();
            }
            return true;
        };
        EXPECT_EQ(convert(std::string(KRV_TEST_MEDIA) + "/long.mov", out()), nullptr);
        EXPECT_EQ(process->wait(), 0);
        EXPECT_GT(fs::file_size(out()), 1000U);
        EXPECT_EQ(filesInOut(), 1U);
    }
    /// From now on the server refuses work; before, it may not have got to what it was asked.
    void waitUntilItEnds() const {
        for (bool refused = false; !refused;) {
            try {
                const auto reply = ask(R::encodeVideoOperation("/missing.mov", out("refused.mp4")));
                (void)ask(R::removeReturnResultForOperation(reply->uniqueID()));
            } catch (const Exception& exception) {
                EXPECT_EQ(exception.name(), kHTTPServerNSURLConnectionError);
                refused = true;
            }
        }
    }
};

TEST_F(Ending, ASecondRequestToEndCancelsNothing) {
    inTheMiddleOfWork([this] {
        EXPECT_TRUE(client->queueShutdownOfCurrentServer());
        waitUntilItEnds();
        EXPECT_TRUE(client->queueShutdownOfCurrentServer());
        EXPECT_TRUE(client->queueShutdownOfCurrentServer());
        EXPECT_EQ(status()["running"], 1);
    });
}

TEST_F(Ending, ARequestToEndAfterASignalCancelsNothing) {
    inTheMiddleOfWork([this] {
        process->signal(SIGTERM);
        waitUntilItEnds();
        EXPECT_TRUE(client->queueShutdownOfCurrentServer());
        EXPECT_EQ(status()["running"], 1);
    });
}

TEST_F(Ending, TheFirstSignalAfterARequestToEndCancelsNothing) {
    inTheMiddleOfWork([this] {
        EXPECT_TRUE(client->queueShutdownOfCurrentServer());
        waitUntilItEnds();
        process->signal(SIGTERM);
        EXPECT_EQ(status()["running"], 1);
    });
}

TEST_F(Ending, ALivingClientKeepsAnIdleServer) {
    start({"-idleTimeout", "1"});
    ChildProcess mortal({"sleep", "1000"});
    const auto registration = R::registerWithServerOperation();
    registration->setRegInfoPID(std::int64_t{mortal.pid()});
    EXPECT_TRUE(ask(registration)->isClientRegistered());
    // Long enough for it to have ended several times.
    for (auto page = status(); page["uptime"] < 6.0; page = status()) {
        ASSERT_TRUE(page.is_object());
    }
    mortal.signal(SIGKILL);
    mortal.wait();
    EXPECT_EQ(process->wait(), 0);
}

TEST_F(Server, EndsWhenNobodyNeedsIt) {
    start({"-idleTimeout", "1"});
    EXPECT_EQ(process->wait(), 0);
}

}  // namespace
}  // namespace krv::server
