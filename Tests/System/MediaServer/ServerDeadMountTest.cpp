// The real server with files on a drive that does not respond.
#include <sys/stat.h>

#include "DeadMount.h"
#include "ServerFixture.h"

namespace krv::server {
namespace {

class DeadDrive : public Server {
protected:
    void SetUp() override {
        if (!mount.isMounted()) {
            GTEST_SKIP() << "only root can mount /dev/fuse";
        }
        start();
    }
    std::string begin(const R::Ref& request) const {
        const auto reply = ask(request);
        EXPECT_EQ(reply->error(), nullptr);
        return reply->uniqueID().value_or("");
    }
    R::Ref waitForEnd(const std::string& id) const {
        R::Ref state = ask(R::progressAndCompletionOperation(id));
        while (!state->completed() && !state->error() && !state->cancelled()) {
            state = ask(R::progressAndCompletionOperation(id));
        }
        return state;
    }
    void describe(const std::string& file) const {
        std::shared_ptr<const Error> error;
        EXPECT_NE(client->getMetadataFor(file, &error), nullptr);
        EXPECT_EQ(error, nullptr);
    }
    /// Returns how many threads of the server wait for the drive.
    std::size_t waitingForTheDrive() const {
        std::size_t count = 0;
        std::error_code gone;
        for (const auto& task : fs::directory_iterator(fmt::format("/proc/{}/task", process->pid()), gone)) {
            std::ifstream in(task.path() / "wchan");
            std::string place;
            std::getline(in, place);
            // The second thread that looks up the same name waits for the first.
            const auto isAt = [&](const char* name) { return place.find(name) != std::string::npos; };
            count += isAt("fuse") || isAt("request_wait") || isAt("d_alloc_parallel") ? 1U : 0U;
        }
        return count;
    }
    void cancelAndWait(const std::string& id) const {
        EXPECT_TRUE(ask(R::cancelOperation(id))->cancelled());
        EXPECT_TRUE(waitForEnd(id)->cancelled());
    }

    test::DeadMount mount{folder.path() / "dead"};
};

TEST_F(DeadDrive, ThatHasTakenARequestDoesNotKeepTheNextServerFromStarting) {
    const auto id = begin(R::provideMetadataFor(mount.file("movie.mov")));
    mount.takeRequest();
    cancelAndWait(id);
    process->signal(SIGTERM);
    // One of its threads is blocked in the kernel, so the process is a zombie until the drive responds.
    waitUntil([this] { return processStatus("State:").find('Z') != std::string::npos; });
    const auto first = std::move(process);
    start();
    describe(movie());
    mount.respond();
    EXPECT_EQ(first->wait(), 0);
}

TEST_F(DeadDrive, ThatBlocksAKilledServerDoesNotKeepTheNextOneFromStarting) {
    begin(R::provideMetadataFor(mount.file("movie.mov")));
    mount.takeRequest();
    process->signal(SIGKILL);
    waitUntil([this] { return processStatus("State:").find('Z') != std::string::npos; });
    const auto first = std::move(process);
    start();
    describe(movie());
    mount.respond();
    (void)first->wait();
}

TEST_F(DeadDrive, DelaysNoOtherFile) {
    const auto description = begin(R::provideMetadataFor(mount.file("movie.mov")));
    const auto conversion = begin(R::encodeVideoOperation(mount.file("movie.mov"), out("never.mp4")));
    const auto onto = begin(R::encodeVideoOperation(movie(), mount.file("out.mp4")));
    const auto thumbnails = begin(R::createThumbnailsForVideo(movie(), mount.file("pictures"), {64, 64}));
    describe(movie());
    EXPECT_EQ(convert(movie(), out()), nullptr);
    for (const std::string& id : {description, conversion, onto, thumbnails}) {
        cancelAndWait(id);
    }
    describe(movie());
    EXPECT_EQ(filesInOut(), 1U);
}

TEST_F(DeadDrive, CostsOnlyTheOperationsThatUseIt) {
    fs::create_directory_symlink(mount.file(""), folder.path() / "link");
    const std::string linked = (folder.path() / "link/movie.mov").string();
    R::Ref refused;
    // More than the server leaves behind. Those that it begins wait for the drive until they are cancelled.
    for (std::size_t i = 0; i < 300 && !refused; ++i) {
        const auto id = begin(R::provideMetadataFor(i % 2 == 0 ? mount.file("movie.mov") : linked));
        waitUntil([&] {
            const auto state = ask(R::progressAndCompletionOperation(id));
            refused = state->error() ? state : nullptr;
            return refused || waitingForTheDrive() == i + 1;
        });
        if (!refused) {
            cancelAndWait(id);
        }
    }
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->error()->code(), 3);
    const auto onto = waitForEnd(begin(R::encodeVideoOperation(movie(), mount.file("out.mp4"))));
    ASSERT_TRUE(onto->error());
    EXPECT_EQ(onto->error()->code(), 5);
    EXPECT_EQ(onto->error()->localizedDescription(),
              "Cannot convert plain.mov: the drive of out.mp4 does not respond.");
    describe(movie());
    EXPECT_EQ(convert(movie(), out()), nullptr);
}

TEST_F(DeadDrive, IsAnErrorAfterAWhile) {
    const std::string source = mount.file("movie.mov");
    const auto description = begin(R::provideMetadataFor(source));
    const auto conversion = begin(R::encodeVideoOperation(movie(), mount.file("out.mp4")));
    const auto read = waitForEnd(description)->error();
    ASSERT_TRUE(read);
    EXPECT_EQ(read->code(), 3);
    EXPECT_EQ(read->localizedDescription(), "Cannot describe movie.mov: its drive does not respond.");
    EXPECT_EQ((*read->userInfo())["KRVFilePath"], Value(source));
    EXPECT_EQ(read->userInfo()->find(kErrorNumber), nullptr);
    const auto written = waitForEnd(conversion)->error();
    ASSERT_TRUE(written);
    EXPECT_EQ(written->code(), 5);
    EXPECT_EQ(written->localizedDescription(), "Cannot convert plain.mov: the drive of out.mp4 does not respond.");
    process->signal(SIGTERM);
    EXPECT_EQ(process->wait(), 0);
}

TEST_F(DeadDrive, DoesNotKeepTheServerFromExiting) {
    const auto id = begin(R::provideMetadataFor(mount.file("movie.mov")));
    begin(R::encodeVideoOperation(mount.file("movie.mov"), out()));
    begin(R::encodeVideoOperation(movie(), mount.file("out.mp4")));
    cancelAndWait(id);
    process->signal(SIGTERM);
    process->signal(SIGTERM);
    EXPECT_EQ(process->wait(), 0);
    EXPECT_EQ(filesInOut(), 0U);
}

TEST_F(DeadDrive, IsClosedWhenItRespondsAtLast) {
    const auto id = begin(R::provideMetadataFor(mount.file("movie.mov")));
    waitUntil([this] { return waitingForTheDrive() == 1; });
    cancelAndWait(id);
    EXPECT_EQ(waitingForTheDrive(), 1U);
    mount.respond();
    waitUntil([this] { return waitingForTheDrive() == 0; });
    describe(movie());
    process->signal(SIGTERM);
    EXPECT_EQ(process->wait(), 0);
}

TEST_F(DeadDrive, OfTheServerItselfDoesNotKeepItFromServingAndExiting) {
    process->signal(SIGTERM);
    EXPECT_EQ(process->wait(), 0);
    const fs::path installed = folder.path() / "installed";
    fs::copy(fs::path(KRV_SERVER).parent_path(), installed, fs::copy_options::recursive);
    program = (installed / fs::path(KRV_SERVER).filename()).string();
    start();
    const test::DeadMount over(installed);
    ASSERT_TRUE(over.isMounted());
    waitUntil([this] { return waitingForTheDrive() == 1; });
    describe(movie());
    EXPECT_TRUE(client->queueShutdownOfCurrentServer());
    EXPECT_EQ(process->wait(), 0);
}

TEST_F(DeadDrive, WithAnUnfinishedFileDoesNotKeepTheServerFromStarting) {
    process->signal(SIGTERM);
    EXPECT_EQ(process->wait(), 0);
    const fs::path notes = folder.path() / "state/KRVQuicktimeProcess/unfinished";
    fs::create_directories(notes);
    std::ofstream(notes / "note") << mount.file(".krv-0123.part");
    start();
    describe(movie());
}

}  // namespace
}  // namespace krv::server
