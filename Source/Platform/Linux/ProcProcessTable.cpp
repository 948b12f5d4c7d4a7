#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>

#include <sys/stat.h>
#include <unistd.h>

#include <dirent.h>
#include <fmt/format.h>

#include <KRVQTProcessClient/Platform/ProcessTable.h>

#include "ProcessFiles.h"
#include "SmallFile.h"

namespace krv {
namespace {

constexpr std::size_t kLongestStat = 4096;

std::optional<std::string> linkTarget(const std::string& path) {
    char buffer[4096];
    const ssize_t size = ::readlink(path.c_str(), buffer, sizeof buffer);
    return size > 0 ? std::optional(std::string(buffer, static_cast<std::size_t>(size))) : std::nullopt;
}

class ProcProcessTable final : public ProcessTable {
public:
    [[nodiscard]] std::optional<ProcessInfo> process(pid_t pid) const override {
        if (pid <= 0) {
            return std::nullopt;
        }
        const std::string folder = fmt::format("/proc/{}", pid);
        struct stat status {};
        // The process may exit between any two of these calls, even between opening its file and reading it.
        const auto text = readSmallFile(folder + "/stat", kLongestStat);
        const auto parsed = text ? parseProcessStat(*text) : std::nullopt;
        if (!parsed || isDeadState(parsed->state) || ::stat(folder.c_str(), &status) != 0) {
            return std::nullopt;
        }
        const auto executable = linkTarget(folder + "/exe");
        return ProcessInfo{pid, executable ? executableName(*executable) : parsed->name, status.st_uid,
                           parsed->startTime};
    }

    [[nodiscard]] bool hasExited(pid_t pid, std::uint64_t startTime) const override {
        if (::kill(pid, 0) != 0 && errno == ESRCH) {
            return true;
        }
        const auto text = readSmallFile(fmt::format("/proc/{}/stat", pid), kLongestStat);
        const auto parsed = text ? parseProcessStat(*text) : std::nullopt;
        return parsed && (isDeadState(parsed->state) || parsed->startTime != startTime);
    }

    [[nodiscard]] std::vector<ProcessInfo> processes() const override {
        std::vector<pid_t> pids;
        if (DIR* const folder = ::opendir("/proc")) {
            while (const dirent* entry = ::readdir(folder)) {
                const std::string_view name = entry->d_name;
                pid_t pid = 0;
                const auto [end, failure] = std::from_chars(name.data(), name.data() + name.size(), pid);
                if (failure == std::errc() && end == name.data() + name.size()) {
                    pids.push_back(pid);
                }
            }
            ::closedir(folder);
        }
        std::sort(pids.begin(), pids.end());
        std::vector<ProcessInfo> all;
        for (const pid_t pid : pids) {
            if (auto info = process(pid)) {
                all.push_back(std::move(*info));
            }
        }
        return all;
    }
};

/// Only the processes of this process's user.
class OwnProcessTable final : public ProcessTable {
public:
    [[nodiscard]] std::optional<ProcessInfo> process(pid_t pid) const override {
        auto info = system().process(pid);
        return info && isOurs(*info) ? std::move(info) : std::nullopt;
    }
    [[nodiscard]] bool hasExited(pid_t pid, std::uint64_t startTime) const override {
        return system().hasExited(pid, startTime);
    }
    [[nodiscard]] std::vector<ProcessInfo> processes() const override {
        auto all = system().processes();
        std::erase_if(all, [](const ProcessInfo& info) { return !isOurs(info); });
        return all;
    }

private:
    static bool isOurs(const ProcessInfo& info) { return info.user == ::getuid(); }
};

}  // namespace

ProcessTable::~ProcessTable() = default;

ProcessTable& ProcessTable::ofThisUser() {
    static auto* table = new OwnProcessTable;
    return *table;
}

ProcessTable& ProcessTable::system() {
    static auto* table = new ProcProcessTable;
    return *table;
}

std::uint64_t pidNamespace() noexcept {
    struct stat status {};
    return ::stat("/proc/self/ns/pid", &status) == 0 ? status.st_ino : 0;
}

}  // namespace krv
