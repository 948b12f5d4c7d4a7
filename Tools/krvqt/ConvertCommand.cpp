#include <deque>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "CombinedProgress.h"
#include "Commands.h"
#include "ConvertSettings.h"
#include "FileOperation.h"
#include "Output.h"
#include "OutputNames.h"
#include "Paths.h"

namespace krvqt {
namespace {

struct ConvertOptions {
    Naming naming;
    std::optional<std::string> folder;
    std::optional<std::string> container;
    bool dryRun = false;
    ConvertSettings settings;
};

/// Returns the extension of --container in the form in which it ends a name.
std::string extensionOf(std::string container) {
    if (container.starts_with('.')) {
        container.erase(0, 1);
    }
    checkContainer("x." + container);
    return container;
}

std::vector<FileToWrite> filesOf(const ConvertOptions& options) {
    const Naming& naming = options.naming;
    if (options.folder) {
        if (naming.output) {
            usage("--output names one file and --to a folder; use one of them");
        }
        return filesInFolder(naming.names, *options.folder,
                             options.container ? extensionOf(*options.container) : options.settings.extension(),
                             naming.force);
    }
    if (options.container) {
        usage("--container belongs to --to; without it, the extension of the destination decides");
    }
    const std::size_t sources = naming.names.size() - (naming.output ? 0 : 1);
    if (sources > 1) {
        usage("convert writes one file for each source; use --to FOLDER for several, or 'krvqt merge' to join them");
    }
    FileToWrite file = naming.oneFile();
    checkContainer(file.destination);
    return {std::move(file)};
}

std::vector<FileOperation> operationsOf(const ConvertOptions& options) {
    std::vector<FileOperation> operations;
    for (FileToWrite& file : filesOf(options)) {
        operations.push_back(
            {.operation = "convert", .sources = std::move(file.sources), .destination = std::move(file.destination)});
    }
    return operations;
}

/// Starts a job for each file, and reports their ends in the order of the command line.
template <typename Start>
ExitStatus writeMovies(const std::vector<FileOperation>& operations, const Start& start, const CommonOptions& common) {
    CombinedProgress display(operations.size(), common.quiet);
    const krv::Media media = krvqt::media(common);
    std::deque<FileReport> reports;
    std::vector<krv::Job<krv::Converted>> jobs;
    for (std::size_t i = 0; i < operations.size(); ++i) {
        FileReport& report = reports.emplace_back(operations[i], common);
        // One of several jobs may wait long for the others.
        const auto onProgress = [&display, &report, i,
                                 isOneOfMany = operations.size() > 1](const krv::Progress& progress) {
            if (isOneOfMany && progress.state >= krv::Progress::State::Running) {
                report.setElapsed(progress.elapsed);
            }
            display.show(i, progress);
        };
        jobs.push_back(start(media, operations[i], onProgress, untilInterrupted()));
    }
    ExitStatus worst = kDone;
    for (std::size_t i = 0; i < operations.size(); ++i) {
        const auto result = jobs[i].wait();
        display.ended(i, result.has_value());
        worst = std::max(worst, reportMovie(operations[i], reports[i], result));
    }
    return worst;
}

/// Returns a function that starts the job of one file.
template <typename Options, typename Member>
auto starter(Options wanted, Member member) {
    return [wanted = std::move(wanted), member](const krv::Media& media, const FileOperation& file,
                                                krv::ProgressCallback onProgress, krv::JobControl control) {
        Options options = wanted;
        options.source = file.sources.front();
        options.destination = file.destination;
        options.onProgress = std::move(onProgress);
        options.control = std::move(control);
        return (media.*member)(std::move(options));
    };
}

ExitStatus showPlan(const std::vector<FileOperation>& operations, const CommonOptions& common) {
    for (const FileOperation& each : operations) {
        if (common.json) {
            printJSON({{"operation", each.operation},
                       {"status", "planned"},
                       {"source", each.sources.front()},
                       {"destination", each.destination}});
        } else {
            printOut("{}\n", each.destination);
        }
    }
    return kDone;
}

ExitStatus convert(const ConvertOptions& options, const CommonOptions& common) {
    const auto operations = operationsOf(options);
    const krv::ConvertOptions wanted = options.settings.convertOptions();
    const krv::FlattenOptions flattened =
        options.settings.flatten ? options.settings.flattenOptions() : krv::FlattenOptions{};
    if (options.dryRun) {
        return showPlan(operations, common);
    }
    if (options.folder) {
        std::error_code failure;
        std::filesystem::create_directories(*options.folder, failure);
        if (failure) {
            say("krvqt: Cannot create the folder {}: {}.\n", absolutePath(*options.folder), failure.message());
            return kFailed;
        }
    }
    if (options.settings.flatten) {
        return writeMovies(operations, starter(flattened, &krv::Media::flatten), common);
    }
    return writeMovies(operations, starter(wanted, &krv::Media::convert), common);
}

}  // namespace

void addConvert(CommandLine& line) {
    const auto options = std::make_shared<ConvertOptions>();
    CLI::App& command = line.add("convert", "convert movies",
                                 [options](const CommonOptions& common) { return convert(*options, common); });
    command
        .add_option("names", options->naming.names,
                    "the movie to read and the file to write, whose extension decides the container")
        ->required()
        ->type_name("SOURCE DESTINATION|SOURCE -o DESTINATION|SOURCE... --to FOLDER");
    addOutput(command, options->naming);
    command
        .add_option("--to", options->folder,
                    "the folder in which one file is written for each source, named after it; created if missing")
        ->type_name("FOLDER");
    command
        .add_option("--container", options->container,
                    "the extension of the files in that folder; 'krvqt containers' lists them. By default that of the "
                    "type: mp4, ProRes mov, VP9 and AV1 webm, Audio Only m4a, else that of the source")
        ->type_name("EXT");
    command.add_flag("--dry-run", options->dryRun, "check the command line and print what would be written");
    addSettings(command, options->settings);
}

}  // namespace krvqt
