#include "ProcessFiles.h"

#include <charconv>

namespace krv {

std::optional<ProcessStat> parseProcessStat(std::string_view text) {
    const std::size_t open = text.find(" (");
    const std::size_t close = text.rfind(") ");
    if (open == std::string_view::npos || close == std::string_view::npos || close < open + 2 ||
        close + 2 >= text.size()) {
        return std::nullopt;
    }
    ProcessStat stat;
    stat.name = std::string(text.substr(open + 2, close - open - 2));
    // After the name: the state is field 3 of the line, the start time field 22.
    std::string_view rest = text.substr(close + 2);
    stat.state = rest.front();
    constexpr int kFieldsFromStateToStart = 19;
    for (int field = 0; field < kFieldsFromStateToStart; ++field) {
        const std::size_t space = rest.find(' ');
        if (space == std::string_view::npos) {
            return std::nullopt;
        }
        rest.remove_prefix(space + 1);
    }
    const auto [end, failure] = std::from_chars(rest.data(), rest.data() + rest.size(), stat.startTime);
    if (failure != std::errc() || end == rest.data()) {
        return std::nullopt;
    }
    return stat;
}

bool isDeadState(char state) noexcept {
    return state == 'Z' || state == 'X' || state == 'x';
}

std::string_view withoutDeletedMark(std::string_view path) noexcept {
    constexpr std::string_view kDeleted = " (deleted)";
    if (path.size() > kDeleted.size() && path.ends_with(kDeleted)) {
        path.remove_suffix(kDeleted.size());
    }
    return path;
}

std::string executableName(std::string_view path) {
    path = withoutDeletedMark(path);
    const std::size_t slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

}  // namespace krv
