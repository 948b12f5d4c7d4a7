// Servers on the same machine that are not ours: another program on a port of the range, a media server of another pid
// namespace.
#include <array>
#include <memory>
#include <ostream>
#include <tuple>

#include <nlohmann/json.hpp>

#include "ScriptedServerProcess.h"
#include "Shell.h"
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
    ours.ask("wait-registered", "registered");
    EXPECT_EQ(nlohmann::json::parse(status(serving.port))["clients"], nlohmann::json({ours.pid()}));
}

/// A development server of the same user, as many take port 8000 for one.
class DevelopmentServer {
public:
    explicit DevelopmentServer(int port)
        : process_({"python3", "-u", "-m", "http.server", std::to_string(port), "--bind", "127.0.0.1"}) {
        process_.readLine();  // it listens
    }

private:
    ChildProcess process_;
};

enum class Place { Before, After, InsteadOfAKilledServer };

const char* nameOf(Place place) {
    constexpr std::array kNames{"Before", "After", "InsteadOfAKilledServer"};
    return kNames.at(static_cast<std::size_t>(place));
}

void PrintTo(Place place, std::ostream* out) {
    *out << nameOf(place);
}

/// A development server on port 8000 or beside it: started before the media server, after it, or in its place.
class DevelopmentNeighbour : public Neighbour, public testing::WithParamInterface<std::tuple<Place, bool>> {
protected:
    DevelopmentNeighbour() {
        if (!std::get<bool>(GetParam())) {
            EXPECT_EQ(runShell("ip route add prohibit 224.0.0.0/4"), 0);
        }
    }
    /// Starts the neighbour, and the application with the media server it launches. Returns the media server's port.
    int start() {
        const Place place = std::get<Place>(GetParam());
        if (place == Place::Before) {
            neighbour = std::make_unique<DevelopmentServer>(8000);
        }
        application = std::make_unique<Application>(install());
        application->ask("wait-registered", "registered");
        const Serving first = waitForServer();
        if (place == Place::After) {
            EXPECT_EQ(first.port, 8000);
            neighbour = std::make_unique<DevelopmentServer>(8001);
        } else if (place == Place::InsteadOfAKilledServer) {
            EXPECT_EQ(first.port, 8000);
            killServer(first.pid);
            neighbour = std::make_unique<DevelopmentServer>(8000);
            application->tell("convert first " + media("plain.mov") + ' ' + out("first.mp4"));
            EXPECT_EQ(application->result("first"), "done");
            return waitForServer([&](const Serving& serving) { return serving.pid != first.pid; }).port;
        }
        return first.port;
    }

    std::unique_ptr<DevelopmentServer> neighbour;
    std::unique_ptr<Application> application;
};

TEST_P(DevelopmentNeighbour, IsNeverTakenForTheServer) {
    const int port = start();
    EXPECT_EQ(port, std::get<Place>(GetParam()) == Place::After ? 8000 : 8001);
    application->ask("ports", "observing");
    for (int conversion = 0; conversion < 20; ++conversion) {
        const std::string id = std::to_string(conversion);
        application->tell("convert " + id + ' ' + media("plain.mov") + ' ' + out(id + ".mp4"));
        EXPECT_EQ(application->result(id), "done");
    }
    application->ask("port", "port");
    const auto ports = application->linesOf("port ");
    EXPECT_FALSE(ports.empty());
    EXPECT_THAT(ports, testing::Each("port " + std::to_string(port)));
}

std::string caseName(const testing::TestParamInfo<std::tuple<Place, bool>>& test) {
    const auto [place, multicast] = test.param;
    return std::string(nameOf(place)) + (multicast ? "WithMulticast" : "WithoutMulticast");
}

INSTANTIATE_TEST_SUITE_P(Places, DevelopmentNeighbour,
                         testing::Combine(testing::Values(Place::Before, Place::After, Place::InsteadOfAKilledServer),
                                          testing::Bool()),
                         caseName);

}  // namespace
}  // namespace krv::test
