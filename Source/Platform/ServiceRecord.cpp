#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include <fmt/format.h>

#include <KRVQTProcessClient/Platform/ServiceRecord.h>

namespace krv {
namespace {

/// Longer than any record that a server writes.
constexpr std::size_t kLongestText = 4096;

bool isPrintable(std::string_view text) {
    return !text.empty() && std::none_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7F;
    });
}

bool read(std::string_view text, std::string& value) {
    value = text;
    return isPrintable(text);
}

template <typename Number>
bool read(std::string_view text, Number& value) {
    const char* const end = text.data() + text.size();
    const auto [next, failure] = std::from_chars(text.data(), end, value);
    return failure == std::errc() && next == end && value > 0;
}

/// Reads the line into the field if it has its key. Returns false for a value that is invalid or given twice.
template <typename Field>
bool readLine(std::string_view key, std::string_view value, std::string_view wanted, Field& field, bool& given) {
    return key != wanted || (!std::exchange(given, true) && read(value, field));
}

}  // namespace

std::string textOf(const ServiceRecord& record) {
    return fmt::format("name={}\nport={}\npid={}\nstart={}\npidns={}\nversion={}\n", record.name, record.port,
                       record.pid, record.startTime, record.pidNamespace, record.version);
}

std::optional<ServiceRecord> parseServiceRecord(std::string_view text) {
    if (text.size() > kLongestText || !text.ends_with('\n')) {
        return std::nullopt;
    }
    ServiceRecord record;
    std::array<bool, 6> given{};
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end + 1);
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos) {
            return std::nullopt;
        }
        const std::string_view key = line.substr(0, equals);
        const std::string_view value = line.substr(equals + 1);
        if (!readLine(key, value, "name", record.name, given[0]) ||
            !readLine(key, value, "port", record.port, given[1]) ||
            !readLine(key, value, "pid", record.pid, given[2]) ||
            !readLine(key, value, "start", record.startTime, given[3]) ||
            !readLine(key, value, "pidns", record.pidNamespace, given[4]) ||
            !readLine(key, value, "version", record.version, given[5])) {
            return std::nullopt;
        }
    }
    const bool complete = std::all_of(given.begin(), given.end(), [](bool each) { return each; });
    return complete ? std::optional(std::move(record)) : std::nullopt;
}

}  // namespace krv
