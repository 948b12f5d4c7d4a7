#include <charconv>
#include <optional>

#include <fmt/format.h>

#include <KRVQTProcessClient/Platform/MulticastDNS/PublisherRecord.h>

namespace krv {
namespace {

constexpr std::string_view kProcess = "pid=";
constexpr std::string_view kStart = "start=";
constexpr std::string_view kPidNamespace = "pidns=";
constexpr std::string_view kVersion = "version=";

template <typename Number>
std::optional<Number> value(std::span<const std::string> text, std::string_view key) {
    for (const std::string_view entry : text) {
        if (entry.starts_with(key)) {
            const std::string_view digits = entry.substr(key.size());
            Number number{};
            const auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
            return failure == std::errc() && end == digits.data() + digits.size() ? std::optional(number)
                                                                                  : std::nullopt;
        }
    }
    return std::nullopt;
}

}  // namespace

std::vector<std::string> publisherRecord(const ServiceRecord& record) {
    return {fmt::format("{}{}", kProcess, record.pid), fmt::format("{}{}", kStart, record.startTime),
            fmt::format("{}{}", kPidNamespace, record.pidNamespace), fmt::format("{}{}", kVersion, record.version)};
}

bool publisherIsDead(std::span<const std::string> text, const ProcessTable& processes) {
    const auto pid = value<pid_t>(text, kProcess);
    const auto start = value<std::uint64_t>(text, kStart);
    if (!pid || !start) {
        return false;
    }
    const auto process = processes.process(*pid);
    return !process || process->startTime != *start;
}

bool publisherIsElsewhere(std::span<const std::string> text, std::uint64_t pidNamespace) {
    return value<std::uint64_t>(text, kPidNamespace).value_or(pidNamespace) != pidNamespace;
}

std::string_view publisherVersion(std::span<const std::string> text) {
    for (const std::string_view entry : text) {
        if (entry.starts_with(kVersion)) {
            return entry.substr(kVersion.size());
        }
    }
    return {};
}

}  // namespace krv
