// How the shared client is made. It starts threads that live until the process exits, so each test has a process of its
// own.
#include <cstdlib>
#include <thread>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Client/KRVQuicktimeProcessClient.h>
#include <KRVQTProcessClient/Client/ReliabilityProxy.h>
#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Platform/RunLoop.h>
#include <KRVQTProcessClient/Transports/Fakes/ScriptedTransport.h>
#include <KRVQTProcessClient/Transports/KRVHTTPClientTransport.h>

#include "TemporaryFolder.h"

namespace krv {
namespace {

class DefaultClient : public testing::Test {
protected:
    DefaultClient() {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        for (const char* variable : {"XDG_RUNTIME_DIR", "XDG_STATE_HOME", "XDG_CONFIG_HOME"}) {
            ::setenv(variable, folder_.path().c_str(), 1);
        }
    }

    /// Ends the test's process, without the threads: with the status 0 if no expectation has failed.
    [[noreturn]] static void finish() { std::_Exit(HasFailure() ? 1 : 0); }

private:
    test::TemporaryFolder folder_;
};

using DefaultClientDeathTest = DefaultClient;

void isAProxyAroundAClientThatWatchesTheServer() {
    const auto shared = KRVQuicktimeProcessClient::defaultClient();
    const auto proxy = std::dynamic_pointer_cast<ReliabilityProxy>(shared);
    ASSERT_TRUE(proxy);
    const auto client = std::dynamic_pointer_cast<KRVQuicktimeProcessClient>(proxy->realOperations());
    ASSERT_TRUE(client);
    EXPECT_NE(client->serverRunner(), nullptr);
    EXPECT_TRUE(std::dynamic_pointer_cast<KRVHTTPClientTransport>(client->transport()));
    EXPECT_EQ(KRVQuicktimeProcessClient::defaultClient(), shared);
    EXPECT_EQ(__default_krv_quicktime_process_client, shared);

    KRVQuicktimeProcessClient::destroySingleton();
    EXPECT_EQ(__default_krv_quicktime_process_client, nullptr);
    EXPECT_EQ(proxy->realOperations(), nullptr);
    EXPECT_NE(client->serverRunner(), nullptr);
    EXPECT_NE(KRVQuicktimeProcessClient::defaultClient(), shared);
}

TEST_F(DefaultClientDeathTest, IsAProxyAroundAClientThatWatchesTheServer) {
    EXPECT_EXIT(
        {
            isAProxyAroundAClientThatWatchesTheServer();
            finish();
        },
        testing::ExitedWithCode(0), "");
}

void isMadeByALaterCallOnTheMainThread() {
    std::string raised;
    std::thread([&] {
        try {
            (void)KRVQuicktimeProcessClient::defaultClient();
        } catch (const Exception& exception) {
            raised = exception.name();
        }
    }).join();
    EXPECT_EQ(raised, "NotMainThread");
    ASSERT_TRUE(RunLoop::isMainThread());
    const auto shared = KRVQuicktimeProcessClient::defaultClient();
    EXPECT_NE(shared, nullptr);
    std::shared_ptr<KRVQTProcessOperations> elsewhere;
    std::thread([&] { elsewhere = KRVQuicktimeProcessClient::defaultClient(); }).join();
    EXPECT_EQ(elsewhere, shared);
}

TEST_F(DefaultClientDeathTest, IsMadeByALaterCallOnTheMainThread) {
    EXPECT_EXIT(
        {
            isMadeByALaterCallOnTheMainThread();
            finish();
        },
        testing::ExitedWithCode(0), "");
}

void givesWayToAClientWithATransport() {
    const auto shared = KRVQuicktimeProcessClient::defaultClient();
    const auto transport = std::make_shared<ScriptedTransport>();
    const auto bare = KRVQuicktimeProcessClient::clientWithTransport(transport);
    EXPECT_EQ(KRVQuicktimeProcessClient::defaultClient(), bare);
    EXPECT_EQ(bare->transport(), transport);
    const auto runner = bare->serverRunner();
    ASSERT_TRUE(runner);
    KRVQuicktimeProcessClient::destroySingleton();
    EXPECT_EQ(bare->serverRunner(), nullptr);
    EXPECT_FALSE(runner->running());
}

TEST_F(DefaultClientDeathTest, GivesWayToAClientWithATransportWhichWatchesTheServerToo) {
    EXPECT_EXIT(
        {
            givesWayToAClientWithATransport();
            finish();
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace krv
