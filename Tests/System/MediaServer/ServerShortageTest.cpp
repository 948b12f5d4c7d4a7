// The real server without enough disk space or memory.
#include <cerrno>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <iterator>
#include <thread>

#include <sys/mount.h>
#include <sys/resource.h>

#include "OtherUserProcess.h"
#include "ServerFixture.h"

namespace krv::server {
namespace {

/// A mounted file system of a given size. The destructor unmounts it. Tests have their own mount namespace.
class SmallDisk {
public:
    SmallDisk(fs::path place, const std::string& options)
        : place_(std::move(place)) {
        fs::create_directory(place_);
        mounted_ = ::mount("tmpfs", place_.c_str(), "tmpfs", 0, options.c_str()) == 0;
    }
    ~SmallDisk() {
        ::umount2(place_.c_str(), MNT_DETACH);
        std::error_code ignored;
        fs::remove(place_, ignored);
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    [[nodiscard]] bool isMounted() const { return mounted_; }
    [[nodiscard]] std::string file(const std::string& name) const { return (place_ / name).string(); }
    [[nodiscard]] std::size_t files() const {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(place_), {}));
    }
    /// Returns the free bytes, which include the space of unlinked files that no process has open.
    [[nodiscard]] std::uintmax_t free() const { return fs::space(place_).available; }

private:
    const fs::path place_;
    bool mounted_ = false;
};

/// Makes a mount point read-only. The destructor makes it writable again.
class ReadOnly {
public:
    explicit ReadOnly(std::string place)
        : place_(std::move(place))
        , done_(remount(MS_RDONLY)) {}
    ~ReadOnly() { (void)remount(0); }
    ReadOnly(const ReadOnly&) = delete;
    ReadOnly& operator=(const ReadOnly&) = delete;

    [[nodiscard]] bool isDone() const { return done_; }

private:
    [[nodiscard]] bool remount(unsigned long flags) const {
        return ::mount("tmpfs", place_.c_str(), "tmpfs", MS_REMOUNT | flags, nullptr) == 0;
    }
    const std::string place_;
    const bool done_;
};

class Shortage : public Server {
protected:
    static std::string contents(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    static void expectNoSpace(const std::shared_ptr<const Error>& error, const std::string& path) {
        ASSERT_TRUE(error);
        EXPECT_EQ(error->domain(), "KRVQuicktimeProcess");
        EXPECT_EQ(error->code(), 5) << error->description();
        EXPECT_EQ(error->localizedFailureReason(), "No space left on device");
        EXPECT_EQ((*error->userInfo())[kErrorNumber], Value(ENOSPC));
        EXPECT_NE(error->localizedDescription().find(fs::path(path).filename().string()), std::string::npos);
        EXPECT_EQ((*error->userInfo())["KRVFilePath"], Value(path));
    }
};

TEST_F(Shortage, AFullDiskIsErrorFiveAndKeepsTheOldFile) {
    start();
    const SmallDisk disk(folder.path() / "disk", "size=2m");
    ASSERT_TRUE(disk.isMounted());
    const std::string out = disk.file("out.mov");
    expectNoSpace(convert(std::string(KRV_TEST_MEDIA) + "/long.mov", out, 4), out);
    EXPECT_EQ(disk.files(), 0U);
    std::ofstream(out) << "old";
    const auto before = disk.free();
    expectNoSpace(convert(std::string(KRV_TEST_MEDIA) + "/long.mov", out, 4), out);
    EXPECT_TRUE(contents(out) == "old");
    EXPECT_EQ(disk.files(), 1U);
    EXPECT_EQ(disk.free(), before);
    EXPECT_EQ(convert(movie(), out), nullptr);
    EXPECT_GT(fs::file_size(out), 1000U);
    EXPECT_EQ(disk.files(), 1U);
}

/// Fills the disk in the header, in the middle, in the index, and while the index is moved to the front.
TEST_F(Shortage, WhereverTheDiskFillsUpTheOutputIsCompleteOrAbsent) {
    start();
    ASSERT_EQ(convert(movie(), out("whole.mp4")), nullptr);
    const auto whole = fs::file_size(out("whole.mp4"));
    int refused = 0;
    int made = 0;
    const std::uintmax_t page = 4096;
    for (std::uintmax_t pages = 1; pages <= whole / page + 4; pages += std::max<std::uintmax_t>(1, whole / page / 8)) {
        const SmallDisk disk(folder.path() / "disk", fmt::format("size={}", pages * page));
        ASSERT_TRUE(disk.isMounted());
        const std::string out = disk.file("out.mp4");
        if (const auto error = convert(movie(), out)) {
            expectNoSpace(error, out);
            EXPECT_EQ(disk.files(), 0U);
            EXPECT_EQ(disk.free(), pages * page);
            ++refused;
        } else {
            EXPECT_GE(pages * page, fs::file_size(out));
            EXPECT_NEAR(static_cast<double>(fs::file_size(out)), static_cast<double>(whole),
                        0.1 * static_cast<double>(whole));
            ++made;
        }
    }
    EXPECT_GT(refused, 0);
    EXPECT_EQ(convert(movie(), out("again.mp4")), nullptr);
    std::cout << "[ measured ] " << refused << " refused, " << made << " made\n";
}

TEST_F(Shortage, AReadOnlyDiskIsErrorFiveForEveryKindOfOutput) {
    start();
    const SmallDisk disk(folder.path() / "disk", "size=2m");
    ASSERT_TRUE(disk.isMounted());
    std::ofstream(disk.file("old.mp4")) << "old";
    fs::create_directory(disk.file("pictures"));
    const ReadOnly remounted(disk.file(""));
    ASSERT_TRUE(remounted.isDone());
    const std::string source = movie();
    for (const R::Ref& request :
         {R::encodeVideoOperation(source, disk.file("new.mp4")), R::encodeVideoOperation(source, disk.file("old.mp4")),
          R::muxAudioTo2chOperation(source, disk.file("new.mov")),
          R::mergeSourcesOperation(Value(Array{source}), disk.file("new.mov"), false),
          R::createThumbnailsForVideo(source, disk.file("pictures"), {}),
          R::createThumbnailsForVideo(source, disk.file("more pictures"), {})}) {
        const auto reply = ask(request);
        R::Ref state = reply;
        while (!state->completed() && !state->error()) {
            state = ask(R::progressAndCompletionOperation(reply->uniqueID()));
        }
        const auto error = state->error();
        ASSERT_TRUE(error) << request->nameFromType();
        EXPECT_EQ(error->code(), 5) << error->description();
        EXPECT_EQ((*error->userInfo())[kErrorNumber], Value(EROFS)) << error->description();
        EXPECT_EQ((*error->userInfo())[kErrorFilePath], Value(request->encodingDestinationFilename().value_or("")));
        EXPECT_NE(error->localizedDescription().find("the file system is read-only"), std::string::npos);
    }
    EXPECT_TRUE(contents(disk.file("old.mp4")) == "old");
    EXPECT_EQ(disk.files(), 2U);
}

/// Returns a GIF of forty-three bytes with one picture of 16,000 x 16,000 pixels.
std::string enormousPicture() {
    const std::string side("\x80\x3E", 2);  // 16,000
    return "GIF89a" + side + side + std::string("\x80\0\0\0\0\0\xFF\xFF\xFF", 9) +
           std::string("\x2C\0\0\0\0\x01\0\x01\0\0", 10) + std::string("\x02\x02\x44\x01\0", 5) + ";";
}

TEST_F(Shortage, AWorkerWithoutMemoryFailsItsOwnOperationOnly) {
    start({"-workerMemoryLimit", "512"});
    const std::string hostile = folder.write("hostile.gif", enormousPicture());
    std::ofstream(out()) << "old";
    const std::string other = ask(R::encodeVideoOperation(std::string(KRV_TEST_MEDIA) + "/long.mov", out("other.mp4")))
                                  ->uniqueID()
                                  .value_or("");
    const auto error = convert(hostile, out());
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 7) << error->description();
    EXPECT_EQ(error->localizedDescription(), "Cannot convert hostile.gif: there was not enough memory.");
    EXPECT_EQ((*error->userInfo())["KRVFilePath"], Value(hostile));
    EXPECT_TRUE(contents(out()) == "old");
    R::Ref state = ask(R::progressAndCompletionOperation(other));
    while (!state->completed() && !state->error()) {
        state = ask(R::progressAndCompletionOperation(other));
    }
    EXPECT_TRUE(state->completed());
    EXPECT_EQ(filesInOut(), 2U);
    EXPECT_EQ(status()["pid"], process->pid());
    EXPECT_EQ(convert(movie(), out()), nullptr);
}

TEST_F(Shortage, AServerThatMayNotStartItsThreadsSaysSoAndExits) {
    using Other = test::OtherUserProcess;
    if (!Other([] { return ::access(KRV_SERVER, X_OK) == 0; }).succeeded()) {
        GTEST_SKIP() << "only root can become another user, who may have to be let into the build folder";
    }
    ASSERT_EQ(::chown(folder.path().c_str(), Other::kUser, Other::kUser), 0);
    for (const int processes : {1, 2, 4}) {
        ChildProcess server({"setpriv", fmt::format("--reuid={}", Other::kUser),
                             fmt::format("--regid={}", Other::kUser), "--clear-groups", "prlimit",
                             fmt::format("--nproc={}", processes), "sh", "-c", "exec \"$1\" 2>&1", "sh", KRV_SERVER});
        EXPECT_EQ(server.readAll(), "KRVQuicktimeProcess: cannot start: Resource temporarily unavailable\n");
        EXPECT_EQ(server.wait(), 1) << processes;
    }
}

/// The server without free descriptors.
class FewDescriptors : public Server {
protected:
    std::size_t openDescriptors() const {
        return static_cast<std::size_t>(
            std::distance(fs::directory_iterator(fmt::format("/proc/{}/fd", process->pid())), {}));
    }
    void limitDescriptors(rlim_t most) const {
        rlimit limit{};
        ASSERT_EQ(::prlimit(process->pid(), RLIMIT_NOFILE, nullptr, &limit), 0);
        limit.rlim_cur = std::min(most, limit.rlim_max);
        ASSERT_EQ(::prlimit(process->pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
    }
    /// Returns whether the server refuses the request with code 1, which its clients take for an unreachable server.
    bool isTurnedAway(const R::Ref& request) const {
        try {
            const auto reply = ask(request);
            R::Ref state = reply;
            while (!state->error() && !state->completed()) {
                state = ask(R::progressAndCompletionOperation(reply->uniqueID()));
            }
            return false;
        } catch (const Exception& exception) {
            return exception.name() == kHTTPServerNSURLConnectionError &&
                   exception.reason().find("too many files open") != std::string::npos;
        }
    }
};

TEST_F(FewDescriptors, TurnsRequestsAwayUntilThereAreSome) {
    start();
    ASSERT_TRUE(ask(R::registerWithServerOperation())->isClientRegistered());
    const R::Ref metadata = R::provideMetadataFor(movie());
    limitDescriptors(openDescriptors());
    EXPECT_TRUE(isTurnedAway(metadata));
    // The registered client is not forgotten. The server looks after its clients every two seconds.
    for (auto page = status(); page["uptime"] < 5.0; page = status()) {
        ASSERT_TRUE(page.is_object());
        ASSERT_EQ(page["clients"].size(), 1U);
    }
    limitDescriptors(RLIM_INFINITY);
    EXPECT_FALSE(isTurnedAway(metadata));
    EXPECT_EQ(convert(movie(), out()), nullptr);
}

TEST_F(FewDescriptors, ASourceThatCannotBeOpenedForLackOfThemIsNotCalledUnreadable) {
    start();
    ASSERT_TRUE(ask(R::registerWithServerOperation())->isClientRegistered());
    constexpr std::size_t kSources = 20;
    Array sources;
    for (std::size_t i = 0; i < kSources; ++i) {
        sources.emplace_back(movie());
    }
    limitDescriptors(openDescriptors() + kSources / 2);
    EXPECT_TRUE(isTurnedAway(R::mergeSourcesOperation(Value(sources), out("merged.mov"), false)));
    EXPECT_EQ(filesInOut(), 0U);
    limitDescriptors(RLIM_INFINITY);
    EXPECT_FALSE(isTurnedAway(R::mergeSourcesOperation(Value(sources), out("merged.mov"), false)));
    EXPECT_TRUE(fs::exists(out("merged.mov")));
}

TEST_F(FewDescriptors, TwentyThousandOperationsOfOneApplicationDoNotTouchAnothersWork) {
    start({}, {"prlimit", "--nofile=128:128"});
    ChildProcess other({"sleep", "1000"});
    const auto asOther = [&](const R::Ref& request) {
        request->setRegInfoPID(std::int64_t{other.pid()});
        return ask(request);
    };
    ASSERT_TRUE(asOther(R::registerWithServerOperation())->isClientRegistered());
    const auto test = R::httpServerTestingOperation();
    test->testInfo()->timeToLive = 1000;
    const auto endless = asOther(test)->uniqueID();
    const auto conversion =
        asOther(R::encodeVideoOperation(std::string(KRV_TEST_MEDIA) + "/long.mov", out()))->uniqueID();
    constexpr int kThreads = 4;
    constexpr int kOperations = 20'000;
    std::vector<std::thread> threads;
    std::atomic<int> refused{0};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kOperations / kThreads; ++i) {
                const auto begun = ask(R::provideMetadataFor(folder.path().string() + "/missing.mov"));
                refused += begun->error() ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(refused, 0);
    EXPECT_TRUE(asOther(R::amIRegisteredOperation())->isClientRegistered());
    const auto still = ask(R::progressAndCompletionOperation(endless));
    EXPECT_EQ(still->error(), nullptr);
    EXPECT_FALSE(still->cancelled());
    R::Ref state;
    do {
        state = ask(R::progressAndCompletionOperation(conversion));
        ASSERT_EQ(state->error(), nullptr) << state->error()->description();
        ASSERT_FALSE(state->cancelled());
    } while (!state->completed());
    EXPECT_GT(fs::file_size(out()), 1000U);
}

}  // namespace
}  // namespace krv::server
