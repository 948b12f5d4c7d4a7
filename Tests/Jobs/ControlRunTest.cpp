// Questions to the server, which the test plays.
#include <memory>
#include <optional>
#include <string>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Jobs/ControlRun.h>
#include <KRVQTProcessClient/Jobs/Failures.h>
#include <KRVQTProcessClient/Jobs/JobResults.h>
#include <KRVQTProcessClient/Operations/OperationErrors.h>

#include "JobFixture.h"

namespace krv {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class ControlRuns : public JobFixture {
protected:
    void start(ControlPlan (*makePlan)()) {
        link.serverIsOn(8000);
        run = std::make_shared<ControlRun>(services(), job, makePlan, std::chrono::seconds(20));
        job->onCancel([this] { run->cancel(); });
        run->start();
        http.runReady();
    }
    void replyWith(const std::string& text) {
        const auto* const bytes = reinterpret_cast<const std::byte*>(text.data());
        ASSERT_EQ(http.pending().size(), 1U);
        http.reply(http.pending().front().token,
                   {.body = Data(bytes, bytes + text.size()), .status = 200, .error = {}});
    }
    std::string pendingURL() const { return http.pending().empty() ? "" : http.pending().front().request.url; }

    std::shared_ptr<ControlRun> run;
};

TEST_F(ControlRuns, TheStatusIsTheServersReportAndTheNamesOfItsOperations) {
    start(serverStatusPlan);
    const auto operations = KRVOperationBase::numberOfOperationsOperation();
    operations->arguments()->set(kArgumentNumOpsNames, Array{"Encode video"});
    reply(OpNumberOfOperations, holding(*operations));
    EXPECT_EQ(pendingURL(), "http://localhost:8000/status");
    replyWith(R"({"version":"1.2","pid":7,"port":8000,"uptime":1.5,"clients":[3,"x",4],"queued":1,"running":2,)"
              R"("finished":3,"workers":4})");
    ASSERT_TRUE(succeeded());
    const auto status = std::static_pointer_cast<const ServerStatus>(outcome->value);
    EXPECT_EQ(status->version, "1.2");
    EXPECT_EQ(status->pid, 7);
    EXPECT_EQ(status->uptime, Seconds(1.5));
    EXPECT_THAT(status->clients, ElementsAre(3, 4));
    EXPECT_EQ(status->queued, 1);
    EXPECT_EQ(status->running, 2);
    EXPECT_EQ(status->finished, 3);
    EXPECT_EQ(status->workers, 4);
    EXPECT_THAT(status->operations, ElementsAre("Encode video"));
    EXPECT_THAT(status->json, HasSubstr("\"clients\""));
    EXPECT_FALSE(status->sandbox);
}

TEST_F(ControlRuns, TheStatusSaysWhatTheKernelOffersForASandbox) {
    start(serverStatusPlan);
    reply(OpNumberOfOperations, holding(*KRVOperationBase::numberOfOperationsOperation()));
    replyWith(R"({"clients":[],"sandbox":{"landlock":5,"seccomp":true}})");
    ASSERT_TRUE(succeeded());
    const auto status = std::static_pointer_cast<const ServerStatus>(outcome->value);
    ASSERT_TRUE(status->sandbox);
    EXPECT_EQ(status->sandbox->landlock, 5);
    EXPECT_TRUE(status->sandbox->seccomp);
}

TEST_F(ControlRuns, AServerThatHasBeenReplacedIsAskedOnce) {
    start(serverStatusPlan);
    reply(OpNumberOfOperations, broken());
    EXPECT_THAT(link.losses, ElementsAre(8000));
    link.serverIsOn(8001);
    http.runReady();
    EXPECT_EQ(pendingURL(), "http://localhost:8001");
    reply(OpNumberOfOperations, broken());
    ASSERT_TRUE(failure());
    EXPECT_EQ(failure()->kind(), Failure::Kind::Unreachable);
    EXPECT_EQ(failure()->cause(), "Connection refused");
}

TEST_F(ControlRuns, APageThatIsNotAStatusIsNoAnswer) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (attempt == 0) {
            start(serverStatusPlan);
        } else {
            link.serverIsOn(8000);
            http.runReady();
        }
        reply(OpNumberOfOperations, holding(*KRVOperationBase::numberOfOperationsOperation()));
        replyWith(attempt == 0 ? "[]" : R"({"pid":7})");
    }
    EXPECT_EQ(failure()->kind(), Failure::Kind::Unreachable);
}

TEST_F(ControlRuns, AllWorkIsCancelledOnBehalfOfEachClient) {
    start(cancelAllWorkPlan);
    replyWith(R"({"clients":[11,12]})");
    for (const int client : {11, 12}) {
        EXPECT_EQ(pendingRecord()->regInfoPID(), Value(client));
        reply(OpCancelAllOperations, holding(*KRVOperationBase::cancelAllOperationsOperation()));
    }
    EXPECT_TRUE(succeeded());
}

TEST_F(ControlRuns, AnErrorAboutALivingClientIsReported) {
    start(cancelAllWorkPlan);
    replyWith(R"({"clients":[)" + std::to_string(::getpid()) + "]}");
    reply(OpCancelAllOperations, erroneous(OperationErrorCode::InvalidArgument));
    EXPECT_EQ(failure()->kind(), Failure::Kind::BadArgument);
}

TEST_F(ControlRuns, AServerIsAskedToExit) {
    start(shutDownServerPlan);
    reply(OpShutdownServer, holding(*KRVOperationBase::shutdownCommand()));
    EXPECT_TRUE(succeeded());
}

TEST_F(ControlRuns, AQuestionCanBeCancelled) {
    start(serverStatusPlan);
    job->cancel();
    EXPECT_EQ(failure()->kind(), Failure::Kind::Cancelled);
    EXPECT_THAT(http.pending(), IsEmpty());
}

}  // namespace
}  // namespace krv
