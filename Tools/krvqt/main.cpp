// krvqt, the command-line client: parses the command line and runs the command.
#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include "ArgumentFilter.h"
#include "Commands.h"
#include "Interruption.h"

namespace {

using namespace krvqt;

/// How long the server may take to confirm a cancellation.
constexpr std::chrono::seconds kCancellationTimeout{5};

void addTrackOptions(CLI::App& command, const std::string& which, TrackOptions& options) {
    command.add_option("--" + which + "-codec", options.codec, "four-character code of the codec, such as avc1")
        ->type_name("CODE");
    command.add_option("--" + which + "-quality", options.quality, "above 0 and at most 1; 0 is the encoder's default")
        ->type_name("Q");
    command.add_option("--" + which + "-settings", options.settings, "key=value:key=value for the encoder")
        ->type_name("SETTINGS");
}

void addConvert(CLI::App& app, ConvertOptions& options) {
    CLI::App& command = *app.add_subcommand("convert", "convert a movie");
    command.add_option("source", options.source, "the movie to read")->required()->type_name("SOURCE");
    command.add_option("destination", options.destination, "the file to write; its extension decides the container")
        ->required()
        ->type_name("DESTINATION");
    command
        .add_option("--type", options.type,
                    "encoding type by name or number, which the other options refine; 'krvqt types' lists them")
        ->type_name("NAME|NUMBER");
    command.add_flag("--flatten", options.flatten, "copy every track, with the index at the start of the file");
    command.add_flag("--force", options.force, "replace an existing destination");
    command.add_option("--fps", options.fps, "frames per second; 0 keeps the source's own timing")->type_name("F");
    addTrackOptions(command, "video", options.video);
    addTrackOptions(command, "audio", options.audio);
    command.add_option("--start", options.start, "where to begin: seconds or h:mm:ss")->type_name("T");
    command.add_option("--end", options.end, "where to end, from the start of the movie: seconds or h:mm:ss")
        ->type_name("T");
    command.add_option("--audio-tracks", options.audioTracks, "audio tracks to keep: indices or languages, as 1,deu")
        ->type_name("LIST");
    command.add_option("--subtitle-tracks", options.subtitleTracks, "subtitle tracks to keep, in the same form")
        ->type_name("LIST");
    command.add_option("--burn-in", options.burnIn, "subtitle track to draw into the video: its index or language")
        ->type_name("N|LANG");
    command.add_flag("--strict", options.strict, "fail before writing anything if a track would be dropped");
}

void addForce(CLI::App& command, bool& force) {
    command.add_flag("--force", force, "replace an existing destination");
}

void addThumbnails(CLI::App& app, ThumbnailsOptions& options) {
    CLI::App& command = *app.add_subcommand("thumbnails", "make pictures spread evenly over a movie");
    command.add_option("movie", options.movie, "the movie to read")->required()->type_name("MOVIE");
    command.add_option("folder", options.folder, "the folder for thumbnail-0001.jpg and so on; created if missing")
        ->required()
        ->type_name("FOLDER");
    command.add_option("--size", options.size, "largest size in pixels; a side of 0 is unlimited")->type_name("WxH");
    command.add_option("--count", options.count, "number of thumbnails (12)")->type_name("N");
    addForce(command, options.force);
}

void addInfo(CLI::App& app, InfoOptions& options) {
    CLI::App& command = *app.add_subcommand("info", "describe movies");
    command.add_option("movies", options.movies, "the movies to read")->required()->type_name("MOVIE...");
    command.add_option("--poster", options.poster, "the JPEG file to write the poster to")->type_name("FILE");
    addForce(command, options.force);
}

void addMux(CLI::App& app, MuxOptions& options) {
    CLI::App& command = *app.add_subcommand("mux", "copy a movie with its audio mixed down to stereo");
    command.add_option("source", options.source, "the movie to read")->required()->type_name("SOURCE");
    command.add_option("destination", options.destination, "the file to write")->required()->type_name("DESTINATION");
    addForce(command, options.force);
}

void addMerge(CLI::App& app, MergeOptions& options) {
    CLI::App& command = *app.add_subcommand("merge", "join movies one after another");
    command.add_option("files", options.files, "the movies to read, in order, then the file to write")
        ->required()
        ->type_name("SOURCE... DESTINATION");
    command.add_flag("--shortest", options.shortest, "end each movie with its shortest track, not its longest");
    command.add_option("--size", options.size, "size in pixels, instead of that of the first movie")->type_name("WxH");
    command.add_option("--fps", options.fps, "frames per second, instead of those of the first movie")->type_name("F");
    addForce(command, options.force);
}

void addTimes(CLI::App& app, TimesOptions& options) {
    CLI::App& command = *app.add_subcommand("times", "list the times in seconds that are worth seeking to");
    command.add_option("movie", options.movie, "the movie to read")->required()->type_name("MOVIE");
    command.add_option("--track", options.track, "index of a track, from 0; lists the times of that track only")
        ->type_name("N");
}

}  // namespace

int main(int argc, char** argv) {
    Interruption::watch(kCancellationTimeout);
    krv::Bundle::setApplicationIdentifier("krvqt");
    krv::applyLoggingDefaults();

    CommonOptions common;
    ConvertOptions convertOptions;
    ThumbnailsOptions thumbnailsOptions;
    InfoOptions infoOptions;
    MuxOptions muxOptions;
    MergeOptions mergeOptions;
    TimesOptions timesOptions;
    std::string recordFile;
    double wait = common.wait.count();

    CLI::App app("Converts and inspects movies through the media server.", "krvqt");
    app.require_subcommand(1);
    app.fallthrough();
    app.set_version_flag("--version", std::string(krv::libraryVersion()));
    app.add_flag("--json", common.json, "print one JSON object per result");
    app.add_flag("--quiet", common.quiet, "print results and errors only, no progress");
    app.add_option("--wait", wait, "how long to wait for the media server")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, 86400.0))
        ->capture_default_str();
    addConvert(app, convertOptions);
    addThumbnails(app, thumbnailsOptions);
    addInfo(app, infoOptions);
    addMux(app, muxOptions);
    addMerge(app, mergeOptions);
    addTimes(app, timesOptions);
    app.add_subcommand("status", "show what the media server is doing");
    app.add_subcommand("cancel-all", "cancel every operation of this user's applications");
    app.add_subcommand("shutdown", "shut down the media server when it has finished its work");
    app.add_subcommand("record", "print an archived operation record")
        ->add_option("file", recordFile, "the file to read; - is standard input")
        ->required()
        ->type_name("FILE");
    app.add_subcommand("types", "list the encoding types and what they mean");

    auto arguments = withoutUserDefaults({argv + 1, argv + argc});
    std::reverse(arguments.begin(), arguments.end());  // CLI11 expects them in reverse order
    try {
        app.parse(std::move(arguments));
    } catch (const CLI::ParseError& problem) {
        return app.exit(problem) == 0 ? kDone : kUsage;
    }
    common.wait = std::chrono::duration<double>(wait);

    const std::map<std::string, std::function<ExitStatus()>> commands{
        {"convert", [&] { return convert(convertOptions, common); }},
        {"thumbnails", [&] { return makeThumbnails(thumbnailsOptions, common); }},
        {"info", [&] { return showInfo(infoOptions, common); }},
        {"mux", [&] { return mux(muxOptions, common); }},
        {"merge", [&] { return merge(mergeOptions, common); }},
        {"times", [&] { return showTimes(timesOptions, common); }},
        {"status", [&] { return showStatus(common); }},
        {"cancel-all", [&] { return cancelAll(common); }},
        {"shutdown", [&] { return shutDown(common); }},
        {"record", [&] { return showRecord(recordFile, common); }},
        {"types", [&] { return showTypes(common); }},
    };
    return commands.at(app.get_subcommands().front()->get_name())();
}
