#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <sys/types.h>

#include <MediaServer/Front/Page.h>
#include <MediaServer/Front/StatusPage.h>
#include <MediaServer/Operations/OperationActivity.h>

namespace krv::server {

/// What the server is doing at one moment, for a person who looks.
struct ServerActivity {
    struct WorkerProcess {
        pid_t pid = 0;
        /// Identifies one of the running operations by its request. Null: the worker is idle.
        const KRVOperationBase* request = nullptr;
    };
    ServerStatus status{};
    OperationActivity operations{};
    std::vector<WorkerProcess> workers{};
    /// The names of the programs that the operations' clients run. Those that have exited may be missing.
    std::map<pid_t, std::string> programs{};
    std::chrono::system_clock::time_point now{};
};

/// Returns the activity as one JSON object. Documentation/media-server.md lists its keys. Pure.
///
/// It names files without their folders. Everything in it is bounded: names are shortened, and of those that wait only
/// the first are listed.
[[nodiscard]] Page activityData(const ServerActivity& activity);

/// Returns the page for a browser. It shows this activity, and its script keeps it up to date. Pure.
///
/// The page may be shown beside nothing and load nothing but the data, and only its own script and style are applied.
/// The names of files are in it as text only.
[[nodiscard]] Page activityPage(const ServerActivity& activity);

}  // namespace krv::server
