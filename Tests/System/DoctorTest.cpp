// krvqt doctor where something is missing, and where nothing is.
#include <filesystem>
#include <map>

#include <nlohmann/json.hpp>

#include "SystemFixture.h"

namespace krv::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

class Doctor : public SystemFixture {
protected:
    struct Verdict {
        int status = 0;
        bool works = false;
        std::map<std::string, std::string> states{};
        std::map<std::string, std::string> findings{};
    };
    /// Runs an installed krvqt.
    static Verdict ask(const std::string& krvqt) {
        ChildProcess process({krvqt, "--json", "--wait", "5", "doctor"});
        const auto json = nlohmann::json::parse(process.readAll());
        Verdict verdict{.status = process.wait(), .works = json.at("works").get<bool>()};
        for (const auto& check : json.at("checks")) {
            verdict.states.emplace(check.at("name"), check.at("state"));
            verdict.findings.emplace(check.at("name"), check.at("finding"));
        }
        return verdict;
    }
};

TEST_F(Doctor, LaunchesAServerAndTriesAConversion) {
    const std::string krvqt = install("App", true, KRV_KRVQT);
    const Verdict first = ask(krvqt);
    EXPECT_EQ(first.status, 0);
    EXPECT_TRUE(first.works);
    EXPECT_THAT(first.states, SizeIs(12));
    for (const auto& [name, state] : first.states) {
        EXPECT_EQ(state, name == "system-bus" ? "warning" : "good") << name << ": " << first.findings.at(name);
    }
    const Serving server = waitForServer();
    EXPECT_THAT(first.findings.at("server"), HasSubstr("None was running. Process " + std::to_string(server.pid)));
    EXPECT_THAT(ask(krvqt).findings.at("server"), HasSubstr("It was found by its record."));
    // Of the trial nothing is left.
    const char* const runtime = std::getenv("XDG_RUNTIME_DIR");
    for (const auto& entry : std::filesystem::directory_iterator(runtime)) {
        EXPECT_THAT(entry.path().filename(), testing::Not(HasSubstr("diagnosis")));
    }
}

TEST_F(Doctor, NamesAMissingBundle) {
    const Verdict verdict = ask(install("App", false, KRV_KRVQT));
    EXPECT_EQ(verdict.status, 1);
    EXPECT_FALSE(verdict.works);
    EXPECT_THAT(verdict.states, testing::IsSupersetOf({Pair("bundle", "problem"), Pair("server", "problem"),
                                                       Pair("conversion", "problem"), Pair("sandbox", "unknown")}));
    EXPECT_THAT(servers(), IsEmpty());
}

TEST_F(Doctor, NamesAServerThatCannotBeExecuted) {
    const std::string krvqt = install("App", true, KRV_KRVQT);
    replaceServer(krvqt, "");
    const Verdict verdict = ask(krvqt);
    EXPECT_EQ(verdict.status, 1);
    EXPECT_EQ(verdict.states.at("bundle"), "problem");
    EXPECT_THAT(verdict.findings.at("bundle"),
                testing::AllOf(HasSubstr(bundleExecutable(krvqt)), HasSubstr(" cannot be executed")));
}

TEST_F(Doctor, NamesARuntimeFolderThatIsNotUsed) {
    ::setenv("XDG_RUNTIME_DIR", "/nonexistent", 1);
    const Verdict verdict = ask(install("App", true, KRV_KRVQT));
    EXPECT_EQ(verdict.status, 0);
    EXPECT_EQ(verdict.states.at("runtime-folder"), "warning");
    EXPECT_THAT(verdict.findings.at("runtime-folder"), HasSubstr("XDG_RUNTIME_DIR is /nonexistent"));
}

}  // namespace
}  // namespace krv::test
