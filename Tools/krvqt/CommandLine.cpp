#include "CommandLine.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include "ArgumentCheck.h"
#include "ArgumentFilter.h"
#include "FailureText.h"
#include "Help.h"
#include "Numbers.h"
#include "Output.h"
#include "Paths.h"
#include "Usage.h"

namespace krvqt {
namespace {

constexpr double kMostSeconds = 86400;

/// Returns whether results are wanted as JSON. The arguments may be wrong.
bool wantsJSON(const std::vector<std::string>& arguments) {
    const auto end = std::find(arguments.begin(), arguments.end(), "--");
    return std::any_of(arguments.begin(), end,
                       [](const std::string& each) { return each == "--json" || each == "-j"; });
}

}  // namespace

CommandLine::CommandLine()
    : app_("Converts and inspects movies through the media server.", "krvqt")
    , wait_(common_.wait.count()) {
    app_.require_subcommand(1);
    app_.fallthrough();
    app_.set_help_flag("-h,--help", "show how to use krvqt or the command");
    app_.set_version_flag("-V,--version", fmt::format("krvqt {}", krv::libraryVersion()), "show the version");
    app_.add_flag("-j,--json", common_.json, "print one JSON object per result, also for failures");
    app_.add_flag("-q,--quiet", common_.quiet, "print results and errors only, no progress");
    app_.add_flag("-v,--verbose", common_.verbose, "print on standard error what the library does");
    addNumber(app_, "--wait", wait_, {.least = 0, .most = kMostSeconds}, "how long to wait for the media server (20)")
        ->type_name("SECONDS");
}

CLI::App& CommandLine::add(const std::string& name, const std::string& description, Run run) {
    commands_.emplace(name, std::move(run));
    return *app_.add_subcommand(name, description);
}

ExitStatus CommandLine::run(std::vector<std::string> arguments) {
    arguments = withoutUserDefaults(std::move(arguments));
    const bool json = wantsJSON(arguments);
    try {
        return parseAndRun(std::move(arguments));
    } catch (const UsageError& problem) {
        say("krvqt: {}\n", problem.what());
        if (json) {
            const krv::Failure failure(krv::Failure::Kind::BadArgument, {.message = problem.what()});
            printJSON({{"status", "failed"}, {"error", failureJSON(failure)}});
        }
        return kUsage;
    }
}

ExitStatus CommandLine::parseAndRun(std::vector<std::string> arguments) {
    const Request request = checkArguments(app_, arguments);
    if (request.version) {
        printOut("{}\n", app_.version());
        return kDone;
    }
    if (request.help) {
        printOut(request.command ? helpText(*request.command) : helpText(app_));
        return kDone;
    }
    parse(*request.command, std::move(arguments));
    common_.wait = std::chrono::duration<double>(wait_);
    if (common_.verbose) {
        constexpr int kEverything = 15;
        krv::krv_loggingEnabled = true;
        krv::qtClientLogLevel = kEverything;
    }
    return commands_.at(request.command->get_name())(common_);
}

void CommandLine::parse(const CLI::App& command, std::vector<std::string> arguments) {
    std::reverse(arguments.begin(), arguments.end());  // CLI11 expects them in reverse order
    const std::string& name = command.get_name();
    try {
        app_.parse(std::move(arguments));
    } catch (const CLI::RequiredError&) {
        throw UsageError(
            fmt::format("{0} needs {1}; see 'krvqt help {0}'", name, fmt::join(formsOf(command), ", or ")));
    } catch (const CLI::ExtrasError&) {
        const auto extras = app_.remaining(true);
        throw UsageError(fmt::format("{0} does not take '{1}'; see 'krvqt help {0}'", name,
                                     extras.empty() ? std::string() : extras.front()));
    } catch (const CLI::ParseError& problem) {
        throw UsageError(problem.what());
    }
}

}  // namespace krvqt
