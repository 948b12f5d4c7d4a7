#include <algorithm>
#include <string_view>

#include <KRVQTProcessClient/Discovery/PortNumbering.h>
#include <KRVQTProcessClient/Platform/Port.h>
#include <KRVQTProcessClient/Platform/UserDefaults.h>

namespace krv {

constinit const std::int32_t kMinPortNumber = 8000;
constinit const long kNumThreadsToStart = 20;

namespace {

constexpr std::string_view kMinimumKey = "minimumPortNumber";
constexpr std::string_view kMaximumKey = "maximumPortNumber";
constexpr std::int32_t kFirstUnprivilegedPort = 1025;
constexpr std::int32_t kRangeLength = 1000;

std::int32_t setting(std::string_view key) {
    return static_cast<std::int32_t>(UserDefaults::standard().integerForKey(key));
}

}  // namespace

std::int32_t PortNumbering::minimumPortNumber() {
    const std::int32_t value = setting(kMinimumKey);
    return std::min(value < kFirstUnprivilegedPort ? kMinPortNumber : value, kHighestPort);
}

std::int32_t PortNumbering::maximumPortNumber() {
    const std::int32_t minimum = minimumPortNumber();
    const std::int32_t value = setting(kMaximumKey);
    return std::min(value < minimumPortNumber() ? minimum + kRangeLength : value, kHighestPort);
}

}  // namespace krv
