// When the real server exits, and what happens to its work.
#include <csignal>
#include <functional>
#include <iostream>
#include <utility>

#include "ServerFixture.h"

namespace krv::server {
namespace {

TEST_F(Server, ExitsWhenAsked) {
    start();
    EXPECT_TRUE(client->queueShutdownOfCurrentServer());
    EXPECT_EQ(process->wait(), 0);
    start();
    process->signal(SIGTERM);
    EXPECT_EQ(process->wait(), 0);
}

TEST_F(Server, FinishesRunningWorkBeforeItExits) {
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

TEST_F(Server, ASecondSignalCancelsRunningWork) {
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
        // The server may exit before the client learns of the cancellation.
        SUCCEED();
    }
    EXPECT_EQ(process->wait(), 0);
    EXPECT_EQ(filesInOut(), 0U);
}

/// Shutting down during a conversion.
class Ending : public Server {
protected:
    /// Runs a conversion, calls the action once during it, and expects both the conversion and the server to end well.
    void duringAConversion(const std::function<void()>& act) {
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
    /// Waits until the server refuses work. Before that, it may not have handled the request to shut down.
    void waitUntilItRefusesWork() const {
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

TEST_F(Ending, ASecondShutdownRequestCancelsNothing) {
    duringAConversion([this] {
        EXPECT_TRUE(client->queueShutdownOfCurrentServer());
        waitUntilItRefusesWork();
        EXPECT_TRUE(client->queueShutdownOfCurrentServer());
        EXPECT_TRUE(client->queueShutdownOfCurrentServer());
        EXPECT_EQ(status()["running"], 1);
    });
}

TEST_F(Ending, AShutdownRequestAfterASignalCancelsNothing) {
    duringAConversion([this] {
        process->signal(SIGTERM);
        waitUntilItRefusesWork();
        EXPECT_TRUE(client->queueShutdownOfCurrentServer());
        EXPECT_EQ(status()["running"], 1);
    });
}

TEST_F(Ending, TheFirstSignalAfterAShutdownRequestCancelsNothing) {
    duringAConversion([this] {
        EXPECT_TRUE(client->queueShutdownOfCurrentServer());
        waitUntilItRefusesWork();
        process->signal(SIGTERM);
        EXPECT_EQ(status()["running"], 1);
    });
}

TEST_F(Ending, ARemovedServerFinishesItsWorkAndRefusesMore) {
    const fs::path installed = folder.path() / "installed";
    fs::copy(fs::path(KRV_SERVER).parent_path(), installed, fs::copy_options::recursive);
    program = (installed / fs::path(KRV_SERVER).filename()).string();
    duringAConversion([&] {
        fs::remove_all(installed);
        waitUntilItRefusesWork();
        EXPECT_EQ(status()["running"], 1);
    });
}

TEST_F(Ending, AnUpgradedServerMakesRoomForTheNewOne) {
    const fs::path installed = folder.path() / "installed";
    fs::copy(fs::path(KRV_SERVER).parent_path(), installed, fs::copy_options::recursive);
    program = (installed / fs::path(KRV_SERVER).filename()).string();
    start();
    // A living client would keep it running otherwise.
    EXPECT_TRUE(ask(R::registerWithServerOperation())->isClientRegistered());
    fs::copy_file(KRV_SERVER, folder.path() / "new");
    fs::rename(folder.path() / "new", program);
    EXPECT_EQ(process->wait(), 0);
    start();
    EXPECT_EQ(convert(movie(), out()), nullptr);
}

TEST_F(Ending, LeavesNoThumbnailsThatWereCancelledOnABusyDisk) {
    const fs::path flushing = folder.path() / "flushing";
    fs::create_directory(out("pictures"));
    start({}, {"env", "LD_PRELOAD=" KRV_BUSY_DISK, "KRV_BUSY_DISK=" + flushing.string()});
    const auto id = ask(R::createThumbnailsForVideo(movie(), out("pictures"), {64, 64}))->uniqueID();
    waitUntil([&] { return fs::exists(flushing); });
    (void)ask(R::cancelOperation(id));
    const auto since = std::chrono::steady_clock::now();
    waitUntil([&] { return ask(R::progressAndCompletionOperation(id))->cancelled(); });
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - since;
    std::cout << "[ measured ] cancelled after " << took.count() << " s\n";
    process->signal(SIGTERM);
    EXPECT_EQ(process->wait(), 0);
    EXPECT_TRUE(fs::is_empty(out("pictures")));
    EXPECT_TRUE(fs::is_empty(folder.path() / "state/KRVQuicktimeProcess/unfinished"));
}

TEST_F(Ending, LeavesNoneOfThousandsOfThumbnailsThatWereCancelled) {
    fs::create_directory(out("pictures"));
    start();
    const auto request =
        R::createThumbnailsForVideo(std::string(KRV_TEST_MEDIA) + "/long.mov", out("pictures"), {16, 16});
    constexpr std::int64_t kMany = 9999;
    request->arguments()->set(kArgumentThumbnailCount, kMany);
    const auto id = ask(request)->uniqueID();
    waitUntil([&] {
        const auto state = ask(R::progressAndCompletionOperation(id));
        return fs::exists(out("pictures/thumbnail-0001.jpg")) || state->completed() || state->error();
    });
    (void)ask(R::cancelOperation(id));
    const auto since = std::chrono::steady_clock::now();
    const auto elapsed = [&] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
    };
    R::Ref state;
    waitUntil([&] {
        state = ask(R::progressAndCompletionOperation(id));
        return state->cancelled() || state->completed() || state->error();
    });
    std::cout << "[ measured ] " << (state->cancelled() ? "cancelled" : "not cancelled") << " after " << elapsed()
              << " s\n";
    process->signal(SIGTERM);
    EXPECT_EQ(process->wait(), 0);
    std::cout << "[ measured ] exited after " << elapsed() << " s\n";
    const auto left = std::distance(fs::directory_iterator(out("pictures")), {});
    EXPECT_EQ(left, state->cancelled() ? 0 : kMany);
    EXPECT_TRUE(fs::is_empty(folder.path() / "state/KRVQuicktimeProcess/unfinished"));
}

TEST_F(Ending, AVeryLongIdleTimeoutDoesNotOverflow) {
    start({"-idleTimeout", "9223372036854775807"});
    EXPECT_EQ(convert(movie(), out()), nullptr);
}

TEST_F(Ending, ALivingClientKeepsAnIdleServerRunning) {
    start({"-idleTimeout", "1"});
    ChildProcess mortal({"sleep", "1000"});
    const auto registration = R::registerWithServerOperation();
    registration->setRegInfoPID(std::int64_t{mortal.pid()});
    EXPECT_TRUE(ask(registration)->isClientRegistered());
    // Several times its idle timeout.
    for (auto page = status(); page["uptime"] < 6.0; page = status()) {
        ASSERT_TRUE(page.is_object());
    }
    mortal.signal(SIGKILL);
    mortal.wait();
    EXPECT_EQ(process->wait(), 0);
}

TEST_F(Server, ReceivesSignalsOnItsMainThreadOnly) {
    start();
    EXPECT_EQ(convert(movie(), out()), nullptr);
    // Of each thread but the main one.
    for (const auto& task : fs::directory_iterator(fmt::format("/proc/{}/task", process->pid()))) {
        std::ifstream in(task.path() / "status");
        for (std::string line; std::getline(in, line) && task.path().filename() != std::to_string(process->pid());) {
            if (line.starts_with("SigBlk:")) {
                const auto mask = std::stoull(line.substr(line.find(':') + 1), nullptr, 16);
                for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGCHLD, SIGUSR1, SIGALRM}) {
                    EXPECT_NE(mask & (1ULL << (number - 1)), 0U) << task.path() << ": " << number;
                }
            }
        }
    }
}

TEST_F(Server, ExitsWhenNoClientNeedsIt) {
    start({"-idleTimeout", "1"});
    EXPECT_EQ(process->wait(), 0);
}

}  // namespace
}  // namespace krv::server
