// The name that client and server share. The tests create interfaces in a network namespace of their own. They also
// cause failures that a healthy kernel never shows: this program defines getifaddrs, which calls the real one.
#include <cerrno>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <ifaddrs.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Discovery/HTTPServerDiscovery.h>
#include <KRVQTProcessClient/Discovery/ServerNaming.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeRunLoop.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeServiceBrowser.h>
#include <KRVQTProcessClient/Platform/HardwareAddress.h>

#include "Shell.h"

namespace {

/// Replaces the real getifaddrs while it is set.
std::function<int(ifaddrs**)> scriptedInterfaces;

int realInterfaces(ifaddrs** list) {
    static const auto real = reinterpret_cast<int (*)(ifaddrs**)>(::dlsym(RTLD_NEXT, "getifaddrs"));
    return real(list);
}

}  // namespace

extern "C" int getifaddrs(ifaddrs** list) noexcept {
    return scriptedInterfaces ? scriptedInterfaces(list) : realInterfaces(list);
}

namespace krv {
namespace {

using Failure = HardwareAddressLookup::Failure;

/// The result of a call, and its output on standard error.
struct Told {
    std::string name;
    std::string text;
};

Told tell(const std::function<std::string()>& call) {
    std::FILE* const file = std::tmpfile();
    const int before = ::dup(STDERR_FILENO);
    std::fflush(stderr);
    ::dup2(::fileno(file), STDERR_FILENO);
    Told told{call(), {}};
    std::fflush(stderr);
    ::dup2(before, STDERR_FILENO);
    ::close(before);
    std::rewind(file);
    for (int c = std::fgetc(file); c != EOF; c = std::fgetc(file)) {
        told.text += static_cast<char>(c);
    }
    (void)std::fclose(file);
    return told;
}

Told nameOf(const std::string& base) {
    return tell([&] { return ServerNaming::machineSpecificNameFor(base); });
}

class MachineSpecificName : public testing::Test {
protected:
    ~MachineSpecificName() override {
        scriptedInterfaces = nullptr;
        if (made_) {
            EXPECT_EQ(test::runShell("ip link del en0"), 0);
        }
    }

    /// Creates a pair of virtual interfaces.
    void makeInterface(const std::string& address) {
        ASSERT_EQ(test::runShell("ip link add en0 address " + address + " type veth peer name en1"), 0);
        made_ = true;
    }

    static void failWith(int code) {
        scriptedInterfaces = [code](ifaddrs**) {
            errno = code;
            return -1;
        };
    }

private:
    bool made_ = false;
};

TEST_F(MachineSpecificName, IsTheBaseNameWithoutTheInterface) {
    const Told told = nameOf("KRVQuicktimeProcess");
    EXPECT_EQ(told.name, "KRVQuicktimeProcess");
    EXPECT_EQ(told.text, "");
    EXPECT_EQ(machineSpecificNameFor_CopyMACAddressData(), std::nullopt);
}

TEST_F(MachineSpecificName, StartsWithTheHardwareAddressInLowerCaseHexadecimal) {
    makeInterface("02:00:5e:10:0a:ff");
    const Told told = nameOf("KRVQuicktimeProcess");
    EXPECT_EQ(told.name, "02005e100aff-KRVQuicktimeProcess");
    EXPECT_EQ(told.text, "");
    const std::vector<std::byte> bytes{std::byte{0x02}, std::byte{0x00}, std::byte{0x5E},
                                       std::byte{0x10}, std::byte{0x0A}, std::byte{0xFF}};
    EXPECT_EQ(machineSpecificNameFor_CopyMACAddressData(), bytes);
}

TEST_F(MachineSpecificName, KeepsTheBaseNameUnchanged) {
    makeInterface("02:00:00:00:00:01");
    EXPECT_EQ(nameOf("").name, "020000000001-");
    EXPECT_EQ(nameOf("a {} %s b").name, "020000000001-a {} %s b");
}

TEST_F(MachineSpecificName, IsTheOneForWhichDiscoverySearches) {
    makeInterface("02:00:00:00:00:05");
    FakeClock clock;
    FakeRunLoop loop(clock);
    HTTPServerDiscovery::Environment environment;
    environment.makeBrowser = [] { return std::make_shared<FakeServiceBrowser>(); };
    environment.currentLoop = [&]() -> RunLoop& { return loop; };
    environment.startThread = [](const std::function<void()>&) {};
    EXPECT_EQ(HTTPServerDiscovery::make(environment)->serviceName(), "020000000005-KRVQuicktimeProcess");
}

TEST_F(MachineSpecificName, FollowsTheAddressWhenItChanges) {
    makeInterface("02:00:00:00:00:01");
    ASSERT_EQ(nameOf("s").name, "020000000001-s");
    ASSERT_EQ(test::runShell("ip link set en0 address 02:00:00:00:00:02"), 0);
    EXPECT_EQ(nameOf("s").name, "020000000002-s");
}

TEST_F(MachineSpecificName, FindsTheAddressOfAnInterfaceThatIsUpAndHasOthers) {
    makeInterface("02:00:00:00:00:03");
    ASSERT_EQ(test::runShell("ip link set en0 up && ip addr add 192.0.2.1/24 dev en0 && ip addr add 192.0.2.2 dev en0"),
              0);
    EXPECT_EQ(nameOf("s").name, "020000000003-s");
    EXPECT_EQ(hardwareAddressOfInterface("en1").address->size(), 6U);
}

TEST_F(MachineSpecificName, IsTheBaseNameForAnInterfaceWithoutAnAddress) {
    ASSERT_EQ(test::runShell("ip link set lo down && ip link set lo name en0"), 0);
    const Told told = nameOf("s");
    const HardwareAddressLookup lookup = hardwareAddressOfInterface("en0");
    ASSERT_EQ(test::runShell("ip link set en0 name lo && ip link set lo up"), 0);
    EXPECT_EQ(told.name, "s");
    EXPECT_EQ(told.text, "");
    EXPECT_EQ(lookup.address, std::nullopt);
    EXPECT_EQ(lookup.failure, Failure::NoFailure);
}

TEST_F(MachineSpecificName, ReportsThatTheQueryFailed) {
    for (const int code : {EAFNOSUPPORT, EPROTONOSUPPORT}) {
        failWith(code);
        const Told told = nameOf("s");
        EXPECT_EQ(told.name, "s");
        EXPECT_EQ(told.text, "IOBSDNameMatching() returned empty dictionary\n");
        const HardwareAddressLookup lookup = hardwareAddressOfInterface("en0");
        EXPECT_EQ(lookup.failure, Failure::NoQuery);
        EXPECT_EQ(lookup.code, code);
        EXPECT_EQ(lookup.address, std::nullopt);
    }
}

TEST_F(MachineSpecificName, ReportsThatTheListIsUnreadable) {
    for (const int code : {EMFILE, ENOMEM}) {
        failWith(code);
        const Told told = nameOf("s");
        EXPECT_EQ(told.name, "s");
        EXPECT_EQ(told.text, "IOServiceGetMatchingServices() returned " + std::to_string(code) + "\n");
        const HardwareAddressLookup lookup = hardwareAddressOfInterface("en0");
        EXPECT_EQ(lookup.failure, Failure::NoList);
        EXPECT_EQ(lookup.code, code);
        EXPECT_EQ(lookup.address, std::nullopt);
    }
}

TEST_F(MachineSpecificName, ReportsThatTheInterfaceWasRemovedDuringTheCall) {
    makeInterface("02:00:00:00:00:04");
    scriptedInterfaces = [](ifaddrs** list) {
        const int result = realInterfaces(list);
        for (ifaddrs* entry = *list; result == 0 && entry; entry = entry->ifa_next) {
            if (entry->ifa_addr && entry->ifa_addr->sa_family == AF_PACKET) {
                entry->ifa_addr = nullptr;
            }
        }
        return result;
    };
    const Told told = nameOf("s");
    EXPECT_EQ(told.name, "s");
    EXPECT_EQ(told.text, "IORegistryGetParentEntry returned " + std::to_string(ENODEV) + "\n");
    const HardwareAddressLookup lookup = hardwareAddressOfInterface("en0");
    EXPECT_EQ(lookup.failure, Failure::NoEntry);
    EXPECT_EQ(lookup.code, ENODEV);
    EXPECT_EQ(lookup.address, std::nullopt);
}

}  // namespace
}  // namespace krv
