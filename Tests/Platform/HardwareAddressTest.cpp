#include <cstdio>
#include <fstream>
#include <string>

#include <dirent.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Platform/HardwareAddress.h>

namespace krv {
namespace {

std::string text(const std::vector<std::byte>& address) {
    std::string result;
    for (const std::byte b : address) {
        char pair[4];
        (void)std::snprintf(pair, sizeof pair, "%02x", std::to_integer<unsigned>(b));
        result += (result.empty() ? "" : ":") + std::string(pair);
    }
    return result;
}

TEST(HardwareAddress, MatchesTheKernelForEveryInterface) {
    DIR* interfaces = ::opendir("/sys/class/net");
    ASSERT_NE(interfaces, nullptr);
    int compared = 0;
    while (const dirent* entry = ::readdir(interfaces)) {
        const std::string name = entry->d_name;
        std::string shown;
        std::ifstream("/sys/class/net/" + name + "/address") >> shown;
        if (name.front() == '.' || shown.size() > 23) {
            continue;
        }
        const auto found = hardwareAddressOfInterface(name);
        EXPECT_EQ(found.failure, HardwareAddressLookup::Failure::NoFailure) << name;
        const bool none = shown.find_first_not_of("0:") == std::string::npos;
        EXPECT_EQ(found.address ? text(*found.address) : "", none ? "" : shown) << name;
        ++compared;
    }
    ::closedir(interfaces);
    EXPECT_GT(compared, 0);
}

TEST(HardwareAddress, AMissingInterfaceIsNotAFailure) {
    for (const char* name : {"no-such-if", "", "a name that is far too long for an interface"}) {
        const auto found = hardwareAddressOfInterface(name);
        EXPECT_EQ(found.address, std::nullopt);
        EXPECT_EQ(found.failure, HardwareAddressLookup::Failure::NoFailure);
        EXPECT_EQ(found.code, 0);
    }
}

TEST(HardwareAddress, TheLoopbackInterfaceHasNone) {
    EXPECT_EQ(hardwareAddressOfInterface("lo").address, std::nullopt);
}

}  // namespace
}  // namespace krv
