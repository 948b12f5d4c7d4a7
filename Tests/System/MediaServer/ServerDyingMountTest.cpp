// The real server with a source on a drive that stops responding while it is read, and when it is closed.
#include <array>
#include <cstring>
#include <functional>
#include <string>
#include <tuple>

#include <sys/stat.h>

#include "DyingMount.h"
#include "ServerFixture.h"

namespace krv::server {
namespace {

using test::DyingMount;

/// One kind of work.
struct Kind {
    const char* name;
    std::function<R::Ref(const std::string& source, const std::string& out)> request;
};

R::Ref encoding(const std::string& source, const std::string& out, std::int32_t type, bool flattenOnly = false) {
    auto request = R::encodeVideoOperation(source, out);
    request->arguments()->set(kArgumentEncodingType, std::int64_t{type});
    request->arguments()->set(kArgumentEncodingFlattenOnly, flattenOnly);
    return request;
}

const std::array<Kind, 8> kKinds{{
    {"ExtractAudio",
     [](auto& source, auto& out) { return encoding(source, out + ".m4a", VideoConversion::AudioOnly); }},
    {"Encode", [](auto& source, auto& out) { return encoding(source, out + ".mp4", 1); }},
    {"Flatten", [](auto& source, auto& out) { return encoding(source, out + ".mov", 0, true); }},
    {"Thumbnails",
     [](auto& source, auto& out) {
         return R::createThumbnailsForVideo(source, out, {64, 64});
     }},
    {"Describe", [](auto& source, auto&) { return R::provideMetadataFor(source); }},
    {"Mix", [](auto& source, auto& out) { return R::muxAudioTo2chOperation(source, out + ".mov"); }},
    {"Merge", [](auto& source, auto& out) { return R::mergeSourcesOperation(Array{source}, out + ".mov", false); }},
    {"Times", [](auto& source, auto&) { return R::getInterestingTimesOperation(source, false, 0); }},
}};

class DyingDrive : public Server, public testing::WithParamInterface<Kind> {
protected:
    /// Mounts the drive, and starts the server and the work on it.
    void begin(DyingMount::DiesAt diesAt) {
        mount = std::make_unique<DyingMount>(folder.path() / "dying", movie(), diesAt);
        if (!mount->isMounted()) {
            GTEST_SKIP() << "only root can mount /dev/fuse";
        }
        start();
        const auto reply = ask(GetParam().request(mount->file(), out("out")));
        ASSERT_EQ(reply->error(), nullptr);
        id = reply->uniqueID().value_or("");
        waitUntil([this] { return mount->isDead(); });
    }
    R::Ref waitForEnd() const {
        R::Ref state = ask(R::progressAndCompletionOperation(id));
        while (!state->completed() && !state->error() && !state->cancelled()) {
            state = ask(R::progressAndCompletionOperation(id));
        }
        return state;
    }
    void otherFilesAreServed() {
        std::shared_ptr<const Error> error;
        EXPECT_NE(client->getMetadataFor(movie(), &error), nullptr);
        EXPECT_EQ(error, nullptr);
        EXPECT_EQ(convert(movie(), out("other.mp4")), nullptr);
    }
    /// The server's threads that are blocked by the drive keep its process from being reaped.
    void exitsAfterSignals(int count) {
        for (int i = 0; i < count; ++i) {
            process->signal(SIGTERM);
        }
        waitUntil([this] { return processStatus("State:").find('Z') != std::string::npos; });
        mount->respond();
        EXPECT_EQ(process->wait(), 0);
    }

    std::unique_ptr<DyingMount> mount;
    std::string id;
};

TEST_P(DyingDrive, ThatDiesWhileItIsReadCostsOnlyItsOwnOperation) {
    begin(DyingMount::DiesAt::Read);
    otherFilesAreServed();
    EXPECT_TRUE(ask(R::cancelOperation(id))->cancelled());
    EXPECT_TRUE(waitForEnd()->cancelled());
    EXPECT_EQ(filesInOut(), 1U);
    exitsAfterSignals(1);
}

TEST_P(DyingDrive, ThatDiesWhileItIsReadDoesNotKeepTheServerFromExiting) {
    begin(DyingMount::DiesAt::Read);
    process->signal(SIGTERM);
    while (processStatus("State:").find('Z') == std::string::npos) {
        process->signal(SIGTERM);
    }
    EXPECT_EQ(filesInOut(), 0U);
    exitsAfterSignals(0);
}

TEST_P(DyingDrive, ThatFailsWhileItIsReadIsErrorThreeWithTheSystemsNumber) {
    begin(DyingMount::DiesAt::Read);
    mount->respond();
    const auto error = waitForEnd()->error();
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 3) << error->description();
    EXPECT_EQ((*error->userInfo())[kErrorFilePath], Value(mount->file()));
    const Value number = (*error->userInfo())[kErrorNumber];
    ASSERT_EQ(number.kind(), Value::Kind::Integer);
    EXPECT_EQ(error->localizedFailureReason(), std::strerror(static_cast<int>(number.integerValue())));
    EXPECT_EQ(filesInOut(), 0U);
    exitsAfterSignals(1);
}

TEST_P(DyingDrive, ThatDiesWhenItIsClosedCostsNothing) {
    begin(DyingMount::DiesAt::Close);
    const auto end = waitForEnd();
    EXPECT_EQ(end->error(), nullptr);
    EXPECT_TRUE(end->completed());
    otherFilesAreServed();
    exitsAfterSignals(1);
}

INSTANTIATE_TEST_SUITE_P(AllWork, DyingDrive, testing::ValuesIn(kKinds),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace krv::server
