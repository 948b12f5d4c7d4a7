// The HTTP front when memory is short, and when its handlers throw.
#include <atomic>
#include <new>
#include <stdexcept>
#include <string>

#include "FrontFixture.h"
#include "LimitedMemory.h"

namespace krv::server {
namespace {

using testing::StartsWith;

constexpr const char* kStatus = "GET /status HTTP/1.1\r\nHost: localhost\r\n\r\n";

class FrontWithoutMemory : public Front {
protected:
    ~FrontWithoutMemory() override { test::limitAllocations(test::kUnlimited); }

    /// Makes an archive of about this many bytes whose record needs at least six times as much in one piece.
    static std::string sharedText(std::size_t size) {
        const auto record = KRVOperationBase::readyToProcessRequestOperation();
        record->arguments()->set("texts", Value(Array(size, Value("text"))));
        return archived(record);
    }
};

TEST_F(FrontWithoutMemory, RefusesABodyForWhichThereIsNone) {
    const HTTPConnection connection(port);
    const std::string request = post(std::string(5 << 20, 'x'));
    test::limitAllocations(1 << 20);
    EXPECT_THAT(connection.ask(request), StartsWith("HTTP/1.1 503"));
    EXPECT_THAT(connection.ask(kStatus), StartsWith("HTTP/1.1 200"));
    EXPECT_EQ(requests, 0);
}

TEST_F(FrontWithoutMemory, RefusesARecordForWhichThereIsNone) {
    const HTTPConnection connection(port);
    // One that is decoded at once, and one that is decoded on the thread for large records.
    for (const std::size_t size : {std::size_t{100} << 10, std::size_t{600} << 10}) {
        const std::string request = post(sharedText(size));
        test::limitAllocations(2 * size);
        EXPECT_THAT(connection.ask(request), StartsWith("HTTP/1.1 503")) << size;
        test::limitAllocations(test::kUnlimited);
        EXPECT_THAT(connection.ask(request), StartsWith("HTTP/1.1 200")) << size;
    }
    EXPECT_EQ(requests, 2);
}

TEST_F(FrontWithoutMemory, SurvivesAHandlerThatThrows) {
    const std::string small = archived(KRVOperationBase::readyToProcessRequestOperation());
    const std::string large = sharedText(300 << 10);
    const HTTPConnection connection(port);
    enum class Throws { BadAlloc, Exception, Number };
    std::atomic<Throws> throws{};
    onRequest = [&throws](const auto&, const auto&) {
        switch (throws) {
        case Throws::BadAlloc:
            throw std::bad_alloc();
        case Throws::Exception:
            throw Exception("Name", "reason");
        case Throws::Number:
            throw 1;
        }
    };
    for (const auto& body : {small, large}) {
        throws = Throws::BadAlloc;
        EXPECT_THAT(connection.ask(post(body)), StartsWith("HTTP/1.1 503"));
        throws = Throws::Exception;
        EXPECT_THAT(connection.ask(post(body)), StartsWith("HTTP/1.1 500"));
        throws = Throws::Number;
        EXPECT_THAT(connection.ask(post(body)), StartsWith("HTTP/1.1 500"));
        EXPECT_THAT(connection.ask(kStatus), StartsWith("HTTP/1.1 200"));
    }
}

TEST_F(FrontWithoutMemory, SendsTheReplyOfAHandlerThatThrowsAfterwards) {
    onRequest = [](const auto& request, const auto& reply) {
        reply(request);
        throw std::runtime_error("after the reply");
    };
    const HTTPConnection connection(port);
    for (const auto& body : {archived(KRVOperationBase::readyToProcessRequestOperation()), sharedText(300 << 10)}) {
        const auto reply = recordIn(connection.ask(post(body)));
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->operationType(), OpReadyToProcessRequests);
    }
}

}  // namespace
}  // namespace krv::server
