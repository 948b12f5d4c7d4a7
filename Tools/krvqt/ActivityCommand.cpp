#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>

#include <unistd.h>

#include <fmt/format.h>

#include <KRVQTProcessClient/KRVQTProcessClient.h>
#include <KRVQTProcessClient/Media.h>
#include <KRVQTProcessClient/Platform/Task.h>

#include "Commands.h"
#include "FileOperation.h"
#include "Output.h"
#include "Paths.h"
#include "Question.h"

namespace krvqt {
namespace {

struct ActivityOptions {
    /// Opens the page in the browser of the desktop.
    bool open = false;
};

/// Returns the path of a program of PATH, empty if there is none.
std::string programPath(const std::string& name) {
    const char* const path = std::getenv("PATH");
    std::istringstream folders(path ? path : "/usr/local/bin:/usr/bin:/bin");
    for (std::string folder; std::getline(folders, folder, ':');) {
        const auto program = std::filesystem::path(folder) / name;
        if (program.is_absolute() && ::access(program.c_str(), X_OK) == 0) {
            return program;
        }
    }
    return {};
}

/// Returns why the browser of the desktop cannot be opened; empty if it can.
std::string openInBrowser(const std::string& url) {
    const std::string opener = programPath("xdg-open");
    if (opener.empty()) {
        return "the program xdg-open is not installed";
    }
    try {
        (void)krv::Task::launch({.executable = opener, .arguments = {url}, .standardErrorFile = {}});
    } catch (const krv::Exception& problem) {
        return problem.what();
    }
    return {};
}

ExitStatus showActivity(const ActivityOptions& options, const CommonOptions& common) {
    const krv::Media media({.launch = krv::Media::Launch::Never, .patience = common.wait});
    const auto status = media.serverStatus(untilInterrupted()).wait();
    if (!status) {
        return questionFailed("activity", status.error(), common);
    }
    const std::string url = fmt::format("http://localhost:{}/activity", status->port);
    if (common.json) {
        printJSON({{"operation", "activity"}, {"status", "done"}, {"url", url}, {"pid", status->pid}});
    } else {
        printPath(url);
    }
    if (const std::string problem = options.open ? openInBrowser(url) : ""; !problem.empty()) {
        say("krvqt: Cannot open a browser: {}.\n", problem);
        return kFailed;
    }
    return kDone;
}

}  // namespace

void addActivity(CommandLine& line) {
    const auto options = std::make_shared<ActivityOptions>();
    line.add("activity", "print the address of a page that shows what the media server is doing",
             [options](const CommonOptions& common) { return showActivity(*options, common); })
        .add_flag("--open", options->open, "open the page in the desktop's browser");
}

}  // namespace krvqt
