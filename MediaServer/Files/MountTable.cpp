#include <array>
#include <charconv>
#include <climits>
#include <deque>
#include <fstream>
#include <iterator>
#include <optional>
#include <vector>

#include <sys/sysmacros.h>
#include <unistd.h>

#include <MediaServer/Files/MountTable.h>

namespace krv::server {
namespace {

/// As many as the kernel follows.
constexpr int kMostLinks = 40;

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    while (!text.empty()) {
        const auto end = std::min(text.find(separator), text.size());
        parts.push_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return parts;
}

/// Decodes the octal escapes of the kernel, such as "\040" for a space.
std::string unescaped(std::string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        unsigned char value = 0;
        const char* const digits = text.data() + i + 1;
        if (text[i] == '\\' && i + 3 < text.size() && std::from_chars(digits, digits + 3, value, 8).ptr == digits + 3) {
            result += static_cast<char>(value);
            i += 3;
        } else {
            result += text[i];
        }
    }
    return result;
}

/// Parses "8:1".
std::optional<dev_t> parseDevice(std::string_view text) {
    const auto numbers = split(text, ':');
    unsigned major = 0;
    unsigned minor = 0;
    const auto parse = [](std::string_view number, unsigned& value) {
        const char* const end = number.data() + number.size();
        return std::from_chars(number.data(), end, value).ptr == end && !number.empty();
    };
    if (numbers.size() != 2 || !parse(numbers[0], major) || !parse(numbers[1], minor)) {
        return std::nullopt;
    }
    return makedev(major, minor);
}

std::string parentOf(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos || slash == 0 ? "/" : path.substr(0, slash);
}

/// Puts the names of a path before the others.
void prepend(std::deque<std::string>& names, std::string_view path) {
    const auto parts = split(path, '/');
    names.insert(names.begin(), parts.begin(), parts.end());
}

}  // namespace

MountTable::MountTable(std::string_view mountInfo) {
    for (const std::string_view line : split(mountInfo, '\n')) {
        // Number, number of the parent, device, root, mount point...
        const auto fields = split(line, ' ');
        if (fields.size() < 5) {
            continue;
        }
        if (const auto device = parseDevice(fields[2])) {
            drives_[unescaped(fields[4])] = *device;
        }
    }
}

MountTable MountTable::current() {
    std::ifstream in("/proc/self/mountinfo");
    return MountTable(std::string(std::istreambuf_iterator<char>(in), {}));
}

dev_t MountTable::driveOf(std::string_view path) const {
    for (;;) {
        if (const auto place = drives_.find(path); place != drives_.end()) {
            return place->second;
        }
        const auto slash = path.rfind('/');
        if (path == "/" || slash == std::string_view::npos) {
            return kUnknownDrive;
        }
        path = slash == 0 ? "/" : path.substr(0, slash);
    }
}

bool MountTable::follow(const std::string& path, const std::function<bool(dev_t drive)>& enter) const {
    std::string place = "/";
    dev_t drive = driveOf(place);
    std::deque<std::string> names;
    prepend(names, path);
    int links = 0;
    bool allowed = enter(drive);
    const auto goTo = [&](std::string next) {
        place = std::move(next);
        if (const dev_t there = driveOf(place); there != drive) {
            drive = there;
            allowed = enter(drive);
        }
    };
    while (allowed && !names.empty()) {
        const std::string name = std::move(names.front());
        names.pop_front();
        if (name.empty() || name == ".") {
            continue;
        }
        if (name == "..") {
            goTo(parentOf(place));
            continue;
        }
        std::string next = place == "/" ? '/' + name : place + '/' + name;
        std::array<char, PATH_MAX> target{};
        // A mount point is never a link, and must not be accessed before enter() has been called for it.
        const ssize_t length = drives_.contains(next) ? -1 : ::readlink(next.c_str(), target.data(), target.size());
        if (length <= 0 || ++links > kMostLinks) {
            goTo(std::move(next));
            continue;
        }
        prepend(names, {target.data(), static_cast<std::size_t>(length)});
        if (target[0] == '/') {
            goTo("/");
        }
    }
    return allowed;
}

}  // namespace krv::server
