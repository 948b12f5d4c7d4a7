// The real server and archives that would cost much more than their size.
#include <iostream>
#include <utility>
#include <vector>

#include <Tests/Foundation/ArchiveSeeds.h>

#include "ServerFixture.h"

namespace krv::server {
namespace {

using test::Bytes;

class HostileArchive : public Server {
protected:
    HTTPResponse post(const Data& body) const {
        return HTTPClient::shared().send(
            {.url = fmt::format("http://localhost:{}", port), .body = body, .timeout = 60s});
    }
    int statusOfPost(const Bytes& archive) const { return post(*test::dataOf(archive)).status; }
    std::size_t peakKiB() const { return std::stoul(processStatus("VmHWM:")); }
    void expectAlive(const std::string& after) const {
        EXPECT_EQ(status()["pid"], process->pid()) << after;
        EXPECT_TRUE(client->isServerReadyToTakeRequests()) << after;
    }
};

TEST_F(HostileArchive, IsReadOrRefusedByAServerThatLivesOn) {
    start();
    const std::vector<std::pair<std::string, std::pair<Bytes, int>>> archives{
        {"ladder", {test::ladder(100'000), 400}},
        {"two chains", {test::twoChains(40), 400}},
        {"nested date", {test::nestedDate(61), 400}},
        {"shared list", {test::sharedLists(120, 400'000), 400}},
        {"larger shared list", {test::sharedLists(200, 800'000), 400}},
        {"fan out", {test::fanOut(12), 200}},
        {"long text", {test::longText(20'000, 4'000'000), 200}},
        {"shared key", {test::sharedKey(2000, 4000), 200}},
        {"shared domain", {test::sharedDomain(10'000, 1'000'000), 200}},
        {"shared arguments", {test::sharedArguments(10'000, 10'000), 400}},
        {"overlapping data", {test::overlappingTexts(50'000), 400}},
        {"plain parameters", {test::plainParameters(), 200}},
        {"size out of range", {test::sizeWithText("{1e999, 1}"), 400}},
    };
    const std::size_t before = peakKiB();
    for (const auto& [name, expected] : archives) {
        EXPECT_EQ(statusOfPost(expected.first), expected.second) << name;
        expectAlive(name);
    }
    // The longest body, its decoded form and a reply.
    const std::size_t needed = peakKiB() - before;
    EXPECT_LT(needed, std::size_t{160} << 10);
    std::cout << "[ measured ] " << needed << " KiB\n";
}

TEST_F(HostileArchive, IsDescribedWithinBounds) {
    start();
    Value leaves("leaf");
    for (int i = 0; i < 12; ++i) {
        leaves = Value(Array(10, leaves));
    }
    const auto registration = R::registerWithServerOperation();
    registration->setRegInfoPID(leaves);
    const auto response = post(registration->convertToData());
    EXPECT_EQ(response.status, 200);
    ASSERT_TRUE(response.body);
    EXPECT_LT(response.body->size(), std::size_t{256} << 10);
    expectAlive("description");
}

}  // namespace
}  // namespace krv::server
