// Servers on the same machine that are not ours: another program on a port of the range, a media server of another pid
// namespace.
#include <nlohmann/json.hpp>

#include "ScriptedServerProcess.h"
#include "SystemFixture.h"

namespace krv::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class Neighbour : public SystemFixture {
protected:
    /// Returns the command line that converts a movie with krvqt and then prints the status of the server that it
    /// finds.
    std::vector<std::string> convertAndShowStatus(const std::string& output) const {
        return {"sh",       "-c",      "\"$1\" convert \"$2\" \"$3\" >&2 && exec \"$1\" status --json",
                "sh",       KRV_KRVQT, media("plain.mov"),
                out(output)};
    }
};

TEST_F(Neighbour, AnotherProgramOnTheLowestPortIsNotTakenForTheServer) {
    ScriptedServerProcess other({"port", "8000", "body", "a page", "server", "SimpleHTTP/0.6 Python/3.11.2"});
    for (const char* output : {"one.mp4", "two.mp4", "three.mp4"}) {
        ChildProcess process(convertAndShowStatus(output));
        const auto page = nlohmann::json::parse(process.readAll(), nullptr, false);
        ASSERT_EQ(process.wait(), 0);
        EXPECT_EQ(page["port"], 8001);
        EXPECT_NEAR(readableSeconds(out(output)), 2.0, 0.1);
    }
}

TEST_F(Neighbour, EachPidNamespaceHasAServerOfItsOwn) {
    Application ours(install());
    ours.tell("convert one " + media("plain.mov") + ' ' + out("one.mp4"));
    ASSERT_EQ(ours.result("one"), "done");
    const Serving serving = waitForServer();
    EXPECT_EQ(serving.port, 8000);

    std::vector<std::string> command{"unshare", "--pid", "--fork", "--kill-child", "--mount-proc"};
    for (std::string& word : convertAndShowStatus("inside.mp4")) {
        command.push_back(std::move(word));
    }
    ChildProcess inside(command);
    const auto page = nlohmann::json::parse(inside.readAll(), nullptr, false);
    EXPECT_EQ(inside.wait(), 0);
    ASSERT_TRUE(page.is_object());
    EXPECT_EQ(page["port"], 8001);
    EXPECT_NEAR(readableSeconds(out("inside.mp4")), 2.0, 0.1);

    // The server of this namespace is still ours, and has done nothing for the other side.
    ours.tell("convert two " + media("plain.mov") + ' ' + out("two.mp4"));
    EXPECT_EQ(ours.result("two"), "done");
    EXPECT_THAT(servers(), ElementsAre(serving.pid));
    EXPECT_EQ(nlohmann::json::parse(status(serving.port))["clients"], nlohmann::json({ours.pid()}));
}

}  // namespace
}  // namespace krv::test
