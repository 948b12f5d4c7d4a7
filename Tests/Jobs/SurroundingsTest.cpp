// The sentences and suggestions of a diagnosis.
#include <algorithm>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Jobs/Failures.h>
#include <KRVQTProcessClient/Jobs/Surroundings.h>

namespace krv {

/// Lets a failed expectation show the check.
void PrintTo(const Check& check, std::ostream* out) {
    *out << check.name << ": " << Check::nameOf(check.state) << ": " << check.finding << ' ' << check.suggestion;
}

namespace {

using testing::AllOf;
using testing::Each;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using State = Check::State;

auto is(State state) {
    return Field("state", &Check::state, state);
}

auto says(const char* part) {
    return Field("finding", &Check::finding, HasSubstr(part));
}

auto suggests(const char* part) {
    return Field("suggestion", &Check::suggestion, HasSubstr(part));
}

/// A machine on which nothing is wrong and a server runs.
Surroundings healthy() {
    Surroundings found;
    found.library = "/usr/lib";
    found.version = "1.0.0";
    found.bundle = "/usr/lib/KRVQuicktimeProcess.app";
    found.processesAreVisible = true;
    found.givenRuntimeFolder = "/run/user/1000";
    found.runtimeFolder = "/run/user/1000";
    found.runtimeFolderIsWritable = true;
    found.record =
        ServiceRecord{.name = "name", .port = 8000, .pid = 17, .startTime = 1, .pidNamespace = 2, .version = "1.0.0"};
    found.recordIsTrue = true;
    found.lowestPort = 8000;
    found.highestPort = 9000;
    found.freePorts = 1000;
    found.loopbackCarriesMulticast = true;
    found.systemBusResponds = true;
    return found;
}

constexpr std::int64_t kPid = 42;

ServerStatus serving() {
    ServerStatus status;
    status.version = "1.0.0";
    status.pid = 17;
    status.port = 8000;
    status.uptime = Seconds(30);
    status.clients = {kPid};
    status.sandbox = SandboxSupport{.landlock = 2, .seccomp = true};
    return status;
}

Check named(const std::string& name, const std::vector<Check>& checks) {
    const auto found = std::find_if(checks.begin(), checks.end(), [&](const Check& each) { return each.name == name; });
    EXPECT_NE(found, checks.end()) << name;
    return found == checks.end() ? Check() : *found;
}

TEST(Surroundings, OfAHealthyMachineAreGood) {
    EXPECT_THAT(checksOf(healthy()), Each(AllOf(is(State::Good), Field(&Check::finding, Not(IsEmpty())),
                                                Field(&Check::suggestion, IsEmpty()))));
    EXPECT_THAT(checksOfServer(healthy(), serving(), serving(), kPid), Each(is(State::Good)));
}

TEST(Surroundings, WithoutABundleSayWhereItWasLookedFor) {
    Surroundings found = healthy();
    found.bundle = "";
    EXPECT_THAT(named("bundle", checksOf(found)), AllOf(is(State::Problem), says("/usr/lib"), suggests("Install")));
}

TEST(Surroundings, NameProgramsThatCannotBeExecuted) {
    Surroundings found = healthy();
    found.brokenPrograms = {"/one", "/two"};
    EXPECT_THAT(named("bundle", checksOf(found)), AllOf(is(State::Problem), says("/one and /two cannot be executed")));
}

TEST(Surroundings, WithoutProcessesAreAProblem) {
    Surroundings found = healthy();
    found.processesAreVisible = false;
    EXPECT_THAT(named("processes", checksOf(found)), AllOf(is(State::Problem), suggests("Mount /proc")));
}

TEST(Surroundings, TellWhichRuntimeFolderIsUsedInsteadOfABadOne) {
    Surroundings found = healthy();
    found.runtimeFolder = "/tmp/other";
    EXPECT_THAT(named("runtime-folder", checksOf(found)),
                AllOf(is(State::Warning), says("/run/user/1000"), says("/tmp/other")));
    found.runtimeFolderIsWritable = false;
    EXPECT_THAT(named("runtime-folder", checksOf(found)), AllOf(is(State::Problem), says("/tmp/other")));
    found.runtimeFolder = "";
    EXPECT_THAT(named("runtime-folder", checksOf(found)), AllOf(is(State::Problem), suggests("XDG_RUNTIME_DIR")));
}

TEST(Surroundings, NeedNoRuntimeFolderFromTheEnvironment) {
    Surroundings found = healthy();
    found.givenRuntimeFolder = "";
    EXPECT_THAT(named("runtime-folder", checksOf(found)), is(State::Good));
}

TEST(Surroundings, NeedAFreePortOnlyIfNoServerHasOne) {
    Surroundings found = healthy();
    found.freePorts = 0;
    EXPECT_THAT(named("ports", checksOf(found)), is(State::Good));
    found.recordIsTrue = false;
    EXPECT_THAT(named("ports", checksOf(found)), AllOf(is(State::Problem), says("0 of the 1001 ports")));
}

TEST(Surroundings, WithoutMulticastOrABusAreUsable) {
    Surroundings found = healthy();
    found.loopbackCarriesMulticast = false;
    found.systemBusResponds = false;
    EXPECT_THAT(named("multicast", checksOf(found)), is(State::Warning));
    EXPECT_THAT(named("system-bus", checksOf(found)), is(State::Warning));
}

TEST(Surroundings, ExplainTheServiceRecord) {
    Surroundings found = healthy();
    found.recordIsTrue = false;
    EXPECT_THAT(named("service-record", checksOfServer(found, noServer(), serving(), kPid)),
                AllOf(is(State::Good), says("17, which has exited")));
    found.record.reset();
    EXPECT_THAT(named("service-record", checksOfServer(found, noServer(), serving(), kPid)), is(State::Good));
    EXPECT_THAT(named("service-record", checksOfServer(found, serving(), serving(), kPid)),
                AllOf(is(State::Warning), suggests("the same XDG_RUNTIME_DIR")));
}

TEST(Surroundings, TellHowTheServerWasFound) {
    Surroundings found = healthy();
    EXPECT_THAT(named("server", checksOfServer(found, serving(), serving(), kPid)),
                AllOf(is(State::Good), says("by its record"), says("for 30 s")));
    found.record->port = 8001;
    EXPECT_THAT(named("server", checksOfServer(found, serving(), serving(), kPid)), says("by multicast DNS"));
    EXPECT_THAT(named("server", checksOfServer(found, noServer(), serving(), kPid)),
                AllOf(is(State::Good), says("None was running. Process 17")));
    ServerStatus another = serving();
    another.pid = 18;
    EXPECT_THAT(named("server", checksOfServer(found, serving(), another, kPid)), says("Process 18"));
    EXPECT_THAT(named("server", checksOfServer(found, serving(), another, kPid)), says("was launched"));
    EXPECT_THAT(named("server", checksOfServer(found, noServer(), noServer(), kPid)),
                AllOf(is(State::Problem), says("No media server is running.")));
}

TEST(Surroundings, CompareTheVersions) {
    ServerStatus older = serving();
    older.version = "1.0.1";
    EXPECT_THAT(named("server", checksOfServer(healthy(), older, older, kPid)),
                AllOf(is(State::Warning), says("1.0.1"), says("The library's version is 1.0.0")));
}

TEST(Surroundings, NoticeAMissingRegistration) {
    EXPECT_THAT(named("registration", checksOfServer(healthy(), serving(), serving(), kPid + 1)), is(State::Warning));
    EXPECT_THAT(named("registration", checksOfServer(healthy(), serving(), noServer(), kPid)), is(State::Unknown));
}

TEST(Surroundings, NameWhatTheSandboxLacks) {
    const auto sandbox = [](std::optional<SandboxSupport> support) {
        ServerStatus status = serving();
        status.sandbox = support;
        return named("sandbox", checksOfServer(healthy(), status, status, kPid));
    };
    EXPECT_THAT(sandbox(SandboxSupport{.landlock = 0, .seccomp = true}),
                AllOf(is(State::Warning), says("lacks Landlock,")));
    EXPECT_THAT(sandbox(SandboxSupport{.landlock = 7, .seccomp = false}),
                AllOf(is(State::Warning), says("lacks seccomp filters,")));
    EXPECT_THAT(sandbox(SandboxSupport{}), AllOf(is(State::Warning), says("lacks Landlock and seccomp filters,")));
    EXPECT_THAT(sandbox(std::nullopt), is(State::Unknown));
}

TEST(Surroundings, ReportTheConversion) {
    EXPECT_THAT(checkOfConversion(Converted()), is(State::Good));
    EXPECT_THAT(checkOfConversion(cannotStart("no program")),
                AllOf(is(State::Problem), says("could not be started. The cause: no program."), suggests("Reinstall")));
}

}  // namespace
}  // namespace krv
