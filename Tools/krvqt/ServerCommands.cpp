#include <fmt/format.h>

#include "Commands.h"
#include "FileOperation.h"
#include "Output.h"
#include "Paths.h"
#include "Question.h"

namespace krvqt {
namespace {

/// Returns the Media of the commands that never launch a server.
krv::Media looking(const CommonOptions& common) {
    return krv::Media({.launch = krv::Media::Launch::Never, .patience = common.wait});
}

ExitStatus showStatus(const CommonOptions& common) {
    const auto result = looking(common).serverStatus(untilInterrupted()).wait();
    if (!result) {
        return questionFailed("status", result.error(), common);
    }
    auto status = nlohmann::json::parse(result->json);
    status["names"] = result->operations;
    if (common.json) {
        printJSON(status);
        return kDone;
    }
    for (const char* key :
         {"version", "pid", "port", "uptime", "clients", "queued", "running", "finished", "workers"}) {
        print("{:<9} {}\n", key, status[key].dump());
    }
    for (const std::string& name : result->operations) {
        print("          {}\n", name);
    }
    return kDone;
}

ExitStatus cancelAll(const CommonOptions& common) {
    const auto result = looking(common).cancelAllWork(untilInterrupted()).wait();
    if (!result) {
        return questionFailed("cancel-all", result.error(), common);
    }
    if (common.json) {
        printJSON({{"operation", "cancel-all"}, {"status", "done"}});
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
