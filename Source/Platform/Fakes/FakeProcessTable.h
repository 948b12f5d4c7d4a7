#pragma once

#include <map>

#include <KRVQTProcessClient/Platform/ProcessTable.h>

namespace krv {

/// A process table that a test fills. For one thread.
class FakeProcessTable final : public ProcessTable {
public:
    void add(ProcessInfo info) { processes_[info.pid] = std::move(info); }
    void remove(pid_t pid) { processes_.erase(pid); }

    [[nodiscard]] std::optional<ProcessInfo> process(pid_t pid) const override {
        const auto place = processes_.find(pid);
        return place == processes_.end() ? std::nullopt : std::optional(place->second);
    }
    [[nodiscard]] bool hasExited(pid_t pid, std::uint64_t startTime) const override {
        const auto info = process(pid);
        return !info || info->startTime != startTime;
    }
    [[nodiscard]] std::vector<ProcessInfo> processes() const override {
        std::vector<ProcessInfo> all;
        for (const auto& [pid, info] : processes_) {
            all.push_back(info);
        }
        return all;
    }

private:
    std::map<pid_t, ProcessInfo> processes_;
};

}  // namespace krv
