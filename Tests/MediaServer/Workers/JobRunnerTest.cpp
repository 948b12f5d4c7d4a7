// Jobs in worker processes that lie.
#include <filesystem>
#include <future>
#include <string>

#include <fcntl.h>

#include <gtest/gtest.h>

#include "TemporaryFolder.h"
#include "WaitUntil.h"
#include <MediaServer/Workers/JobRunner.h>

namespace krv::server {
namespace {

/// The parameter: what the worker sends.
class LyingWorkers : public testing::TestWithParam<const char*> {
protected:
    /// Creates a link to the program, whose name says what to send, before the pool starts it.
    [[nodiscard]] std::string program() const {
        std::filesystem::create_symlink(KRV_LYING_WORKER, folder_.path() / GetParam());
        return (folder_.path() / GetParam()).string();
    }

    test::TemporaryFolder folder_;
    WorkerPool pool_{program(), 1};
    JobRunner runner_{pool_};
    Cancellation cancellation_;
};

TEST_P(LyingWorkers, DoNotKeepTheirJobFromBeingCancelled) {
    auto outcome = std::async(std::launch::async, [&] {
        return runner_.run(*KRVOperationBase::provideMetadataFor("/a.mov"), {}, cancellation_, [](double) {});
    });
    const auto marker = folder_.path() / (std::string(GetParam()) + ".read");
    test::waitUntil([&] { return std::filesystem::exists(marker); });
    cancellation_.request();
    EXPECT_EQ(outcome.get().kind, Outcome::Kind::Cancelled);
}

INSTANTIATE_TEST_SUITE_P(Messages, LyingWorkers, testing::Values("HalfLength", "HalfRecord", "Silent"),
                         [](const auto& test) { return std::string(test.param); });

TEST_P(LyingWorkers, AreKilledWhenTheyReportNothingForTooLong) {
    const JobRunner impatient(pool_, std::chrono::milliseconds(1));
    const Outcome outcome =
        impatient.run(*KRVOperationBase::provideMetadataFor("/a.mov"), {}, cancellation_, [](double) {});
    ASSERT_EQ(outcome.kind, Outcome::Kind::Failed);
    EXPECT_EQ(outcome.error->code(), 7);
}

TEST_P(LyingWorkers, AreToldOfWhenTheyAreSilent) {
    const JobRunner runner(pool_, {}, std::chrono::milliseconds(1));
    int silences = 0;
    const Outcome outcome = runner.run(
        *KRVOperationBase::provideMetadataFor("/a.mov"), {}, cancellation_, [](double) {},
        [&] {
            ++silences;
            cancellation_.request();
        });
    EXPECT_EQ(outcome.kind, Outcome::Kind::Cancelled);
    EXPECT_EQ(silences, 1);
}

/// Workers that do not even read their request, because they have been stopped, for instance.
class DeafWorkers : public LyingWorkers {
protected:
    /// Returns a request that is larger than what a socket holds for a peer that does not read.
    static KRVOperationBase::Ref request() {
        constexpr std::size_t kLarge = std::size_t{1} << 22;
        return KRVOperationBase::provideMetadataFor("/" + std::string(kLarge, 'a'));
    }
};

TEST_P(DeafWorkers, DoNotKeepALargeJobFromBeingCancelled) {
    auto outcome =
        std::async(std::launch::async, [&] { return runner_.run(*request(), {}, cancellation_, [](double) {}); });
    test::waitUntil([&] { return !runner_.busy().empty(); });
    cancellation_.request();
    EXPECT_EQ(outcome.get().kind, Outcome::Kind::Cancelled);
}

TEST_P(DeafWorkers, AreKilledWhenTheyReadNothingForTooLong) {
    const JobRunner impatient(pool_, std::chrono::milliseconds(1));
    const Outcome outcome = impatient.run(*request(), {}, cancellation_, [](double) {});
    ASSERT_EQ(outcome.kind, Outcome::Kind::Failed);
    EXPECT_EQ(outcome.error->code(), 7);
}

TEST_P(DeafWorkers, AreToldOfWhenTheyReadNothing) {
    const JobRunner runner(pool_, {}, std::chrono::milliseconds(1));
    const Outcome outcome = runner.run(
        *request(), {}, cancellation_, [](double) {}, [&] { cancellation_.request(); });
    EXPECT_EQ(outcome.kind, Outcome::Kind::Cancelled);
}

INSTANTIATE_TEST_SUITE_P(Requests, DeafWorkers, testing::Values("Silent"),
                         [](const auto& test) { return std::string(test.param); });

class LyingReports : public LyingWorkers {
protected:
    /// Asks for two thumbnails with an output that the worker leaves as it is.
    [[nodiscard]] Outcome run() {
        const auto request = KRVOperationBase::createThumbnailsForVideo("/a.mov", "/thumbnails", {});
        request->arguments()->set(kArgumentThumbnailCount, 2);
        const Descriptor source(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        const Descriptor output(::open(folder_.path().c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
        return runner_.run(*request, {source.get(), output.get()}, cancellation_, [](double) {});
    }
};

TEST_P(LyingReports, AreInternalErrors) {
    const Outcome outcome = run();
    EXPECT_EQ(outcome.kind, Outcome::Kind::Failed);
    ASSERT_NE(outcome.error, nullptr);
    EXPECT_EQ(outcome.error->code(), 8);
    EXPECT_EQ(outcome.error->localizedDescription(), "Cannot make thumbnails of a.mov: an internal error occurred.");
}

INSTANTIATE_TEST_SUITE_P(Reports, LyingReports,
                         testing::Values("ErrorOne", "HugeErrorNumber", "TooManyThumbnails", "NoResult"),
                         [](const auto& test) { return std::string(test.param); });

class LyingDescriptions : public LyingWorkers {};

TEST_P(LyingDescriptions, AreInternalErrors) {
    const Outcome outcome =
        runner_.run(*KRVOperationBase::provideMetadataFor("/a.mov"), {}, cancellation_, [](double) {});
    EXPECT_EQ(outcome.kind, Outcome::Kind::Failed);
    ASSERT_NE(outcome.error, nullptr);
    EXPECT_EQ(outcome.error->code(), 8);
    EXPECT_EQ(outcome.error->localizedFailureReason(), "the worker sent no list of tracks, or one that is too long");
}

INSTANTIATE_TEST_SUITE_P(Reports, LyingDescriptions, testing::Values("TooManyTracks"),
                         [](const auto& test) { return std::string(test.param); });

class EmptyOutputs : public LyingReports {};

TEST_P(EmptyOutputs, AreNotResults) {
    const Descriptor source(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    const Descriptor output(::open(folder_.path().c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    const Outcome outcome = runner_.run(*KRVOperationBase::encodeVideoOperation("/a.mov", "/out.mp4"),
                                        {source.get(), output.get()}, cancellation_, [](double) {});
    ASSERT_EQ(outcome.kind, Outcome::Kind::Failed);
    EXPECT_EQ(outcome.error->code(), 8);
    EXPECT_EQ(outcome.error->localizedFailureReason(), "the worker reported completion and wrote nothing");
}

INSTANTIATE_TEST_SUITE_P(Reports, EmptyOutputs, testing::Values("NothingWritten"),
                         [](const auto& test) { return std::string(test.param); });

}  // namespace
}  // namespace krv::server
