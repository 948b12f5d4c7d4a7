#include "CommandLine.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include <CLI/CLI.hpp>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include "ArgumentFilter.h"

namespace krvqt {

CommandLine::CommandLine()
    : app_("Converts and inspects movies through the media server.", "krvqt")
    , wait_(common_.wait.count()) {
    app_.require_subcommand(1);
    app_.fallthrough();
    app_.set_version_flag("--version", std::string(krv::libraryVersion()));
    app_.add_flag("--json", common_.json, "print one JSON object per result");
    app_.add_flag("--quiet", common_.quiet, "print results and errors only, no progress");
    app_.add_option("--wait", wait_, "how long to wait for the media server")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, 86400.0))
        ->capture_default_str();
}

CLI::App& CommandLine::add(const std::string& name, const std::string& description, Run run) {
    commands_.emplace(name, std::move(run));
    return *app_.add_subcommand(name, description);
}

ExitStatus CommandLine::run(std::vector<std::string> arguments) {
    arguments = withoutUserDefaults(std::move(arguments));
    std::reverse(arguments.begin(), arguments.end());  // CLI11 expects them in reverse order
    try {
        app_.parse(std::move(arguments));
    } catch (const CLI::ParseError& problem) {
        return app_.exit(problem) == 0 ? kDone : kUsage;
    }
    common_.wait = std::chrono::duration<double>(wait_);
    return commands_.at(app_.get_subcommands().front()->get_name())(common_);
}

}  // namespace krvqt
