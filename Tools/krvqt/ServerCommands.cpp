#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "Commands.h"
#include "FileOperation.h"
#include "Output.h"
#include "Paths.h"
#include "ProgressDisplay.h"
#include "Question.h"

namespace krvqt {
namespace {

/// Returns the Media of the commands that never launch a server.
krv::Media looking(const CommonOptions& common) {
    return krv::Media({.launch = krv::Media::Launch::Never, .patience = common.wait});
}

std::string countText(std::int64_t count, std::string_view what) {
    return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

ExitStatus showStatus(const CommonOptions& common) {
    const auto result = looking(common).serverStatus(untilInterrupted()).wait();
    if (!result) {
        return questionFailed("status", result.error(), common);
    }
    if (common.json) {
        auto status = nlohmann::json::parse(result->json);
        status["operation"] = "status";
        status["status"] = "done";
        status["names"] = result->operations;
        printJSON(status);
        return kDone;
    }
    printOut("media server {}, process {}, port {}, running for {}\n", result->version, result->pid, result->port,
             clockText(std::chrono::floor<std::chrono::seconds>(result->uptime)));
    printOut("{} running, {} waiting, {} finished\n", result->running, result->queued, result->finished);
    printOut("{}, {}{}{}\n", countText(result->workers, "worker"),
             countText(static_cast<std::int64_t>(result->clients.size()), "client"),
             result->clients.empty() ? "" : ": process ", fmt::join(result->clients, ", "));
    for (const std::string& name : result->operations) {
        printOut("  {}\n", name);
    }
    return kDone;
}

ExitStatus cancelAll(const CommonOptions& common) {
    const krv::Media media = looking(common);
    const auto status = media.serverStatus(untilInterrupted()).wait();
    if (!status) {
        return questionFailed("cancel-all", status.error(), common);
    }
    const auto result = media.cancelAllWork(untilInterrupted()).wait();
    if (!result) {
        return questionFailed("cancel-all", result.error(), common);
    }
    // Inexact if operations start or end between the two requests.
    const std::int64_t cancelled = status->running + status->queued;
    if (common.json) {
        printJSON({{"operation", "cancel-all"}, {"status", "done"}, {"cancelled", cancelled}});
    } else if (!common.quiet) {
        say("krvqt: {}\n", cancelled == 0 ? "there was nothing to cancel"
                                          : fmt::format("cancelled {}", countText(cancelled, "operation")));
    }
    return kDone;
}

ExitStatus shutDown(const CommonOptions& common) {
    const auto result = looking(common).shutDownServer(untilInterrupted()).wait();
    if (!result) {
        return questionFailed("shutdown", result.error(), common);
    }
    if (common.json) {
        printJSON({{"operation", "shutdown"}, {"status", "done"}});
    } else if (!common.quiet) {
        say("krvqt: the media server exits when it has finished its work\n");
    }
    return kDone;
}

}  // namespace

void addServerCommands(CommandLine& line) {
    line.add("status", "show what the media server is doing", showStatus);
    line.add("cancel-all", "cancel every operation of this user's applications", cancelAll);
    line.add("shutdown", "shut down the media server when it has finished its work", shutDown);
}

}  // namespace krvqt
