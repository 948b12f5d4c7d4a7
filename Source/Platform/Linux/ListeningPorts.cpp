#include "ListeningPorts.h"

#include <charconv>
#include <optional>
#include <string>

#include <unistd.h>

#include "SmallFile.h"

namespace krv {
namespace {

/// Takes the next word off the front of the line.
std::string_view nextWord(std::string_view& line) {
    const std::size_t begin = line.find_first_not_of(' ');
    if (begin == std::string_view::npos) {
        line = {};
        return {};
    }
    const std::size_t end = std::min(line.find(' ', begin), line.size());
    const std::string_view word = line.substr(begin, end - begin);
    line.remove_prefix(end);
    return word;
}

std::optional<unsigned> number(std::string_view text, int base) {
    unsigned value = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    return failure == std::errc() && end == text.data() + text.size() && !text.empty() ? std::optional(value)
                                                                                       : std::nullopt;
}

constexpr std::string_view kListening = "0A";
constexpr std::size_t kLongestTable = std::size_t{64} << 20;

/// "  0: 0100007F:1F40 00000000:0000 0A 00000000:00000000 00:00000000 00000000  1000 ..."
bool lineIsListener(std::string_view line, std::uint16_t port, uid_t user) {
    nextWord(line);
    const std::string_view local = nextWord(line);
    nextWord(line);
    if (nextWord(line) != kListening) {
        return false;
    }
    for (int skipped = 0; skipped < 3; ++skipped) {
        nextWord(line);
    }
    const std::size_t colon = local.rfind(':');
    return colon != std::string_view::npos && number(local.substr(colon + 1), 16) == port &&
           number(nextWord(line), 10) == user;
}

}  // namespace

bool tableHasListener(std::string_view table, std::uint16_t port, uid_t user) {
    while (!table.empty()) {
        const std::size_t end = std::min(table.find('\n'), table.size());
        if (lineIsListener(table.substr(0, end), port, user)) {
            return true;
        }
        table.remove_prefix(std::min(end + 1, table.size()));
    }
    return false;
}

bool userListensOnPort(std::uint16_t port) {
    for (const char* path : {"/proc/self/net/tcp", "/proc/self/net/tcp6"}) {
        const auto table = readSmallFile(path, kLongestTable);
        if (table && tableHasListener(*table, port, ::getuid())) {
            return true;
        }
    }
    return false;
}

}  // namespace krv
