#include "CommandLine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Commands.h"
#include "Help.h"
#include "Numbers.h"
#include "Spelling.h"
#include "Usage.h"

namespace krvqt {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

struct Outcome {
    ExitStatus status = kDone;
    std::string out;
    std::string err;
};

/// Runs a command line that cannot start any work.
Outcome run(const std::vector<std::string>& arguments) {
    CommandLine line;
    addCommands(line);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    Outcome outcome;
    outcome.status = line.run(arguments);
    outcome.out = testing::internal::GetCapturedStdout();
    outcome.err = testing::internal::GetCapturedStderr();
    return outcome;
}

/// Returns what is said about a wrong command line.
std::string complaint(const std::vector<std::string>& arguments) {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, kUsage);
    EXPECT_EQ(outcome.out, "");
    return outcome.err;
}

TEST(Spelling, CountsMistakes) {
    EXPECT_EQ(editDistance("convert", "convert"), 0U);
    EXPECT_EQ(editDistance("conver", "convert"), 1U);
    EXPECT_EQ(editDistance("covnert", "convert"), 1U) << "neighbours that were exchanged";
    EXPECT_EQ(editDistance("", "abc"), 3U);
    EXPECT_EQ(editDistance("abc", ""), 3U);
    EXPECT_EQ(editDistance("kitten", "sitting"), 3U);
}

TEST(Spelling, SuggestsTheNearestWord) {
    const std::vector<std::string> words{"--type", "--to", "--version", "--video-codec"};
    EXPECT_EQ(closest("--typ", words), "--type");
    EXPECT_EQ(closest("--tpye", words), "--type");
    EXPECT_EQ(closest("--vers", words), "--version") << "the beginning of a word";
    EXPECT_EQ(closest("--xyz", words), "");
    EXPECT_EQ(closest("--", words), "");
}

TEST(CommandLine, SuggestsACommandOrAnOption) {
    EXPECT_EQ(complaint({"conver", "a", "b"}), "krvqt: unknown command 'conver'; did you mean 'convert'?\n");
    EXPECT_EQ(complaint({"--json-lines", "info"}), "krvqt: unknown option --json-lines\n");
    EXPECT_EQ(complaint({"convert", "--typ", "hevc", "a", "b"}),
              "krvqt: unknown option --typ; did you mean '--type'?\n");
    EXPECT_EQ(complaint({"info", "--quite", "a"}), "krvqt: unknown option --quite; did you mean '--quiet'?\n");
    EXPECT_EQ(complaint({"xyz"}), "krvqt: unknown command 'xyz'; 'krvqt help' lists the commands\n");
    EXPECT_EQ(complaint({}), "krvqt: a command is missing; 'krvqt help' lists them\n");
}

TEST(CommandLine, TellsFilesFromOptions) {
    EXPECT_EQ(complaint({"info", "-dash.mov"}),
              "krvqt: unknown option -dash.mov; the name of a file that begins with - follows --\n");
    EXPECT_EQ(complaint({"times", "--", "-dash.mov", "b"}), "krvqt: times does not take 'b'; see 'krvqt help times'\n");
}

TEST(CommandLine, SaysWhatIsMissing) {
    EXPECT_EQ(complaint({"thumbnails", "a"}), "krvqt: thumbnails needs MOVIE FOLDER; see 'krvqt help thumbnails'\n");
    EXPECT_EQ(complaint({"mux"}),
              "krvqt: mux needs SOURCE DESTINATION, or SOURCE -o DESTINATION; see 'krvqt help mux'\n");
    EXPECT_EQ(complaint({"mux", "a"}), "krvqt: only a is given; a source and a destination are needed\n");
    EXPECT_THAT(complaint({"convert", "a", "b", "--type"}), StartsWith("krvqt: --type needs a value: "));
    EXPECT_EQ(complaint({"types", "--json=3"}), "krvqt: --json takes no value\n");
}

TEST(CommandLine, RefusesNumbersAtOnce) {
    EXPECT_EQ(complaint({"types", "--wait", "soon"}), "krvqt: --wait takes a number from 0 to 86400, not 'soon'\n");
    EXPECT_EQ(complaint({"convert", "a", "b", "--video-quality", "3"}),
              "krvqt: --video-quality takes a number from 0 to 1, not '3'\n");
    EXPECT_EQ(complaint({"thumbnails", "a", "b", "--count", "1.5"}),
              "krvqt: --count takes a whole number from 1 to 9999, not '1.5'\n");
    EXPECT_EQ(complaint({"merge", "a", "b", "--fps", "nan"}),
              "krvqt: --fps takes a number from 0 to 1000, not 'nan'\n");
    EXPECT_EQ(complaint({"times", "a", "--track", "-1"}),
              "krvqt: --track takes a whole number from 0 to 2147483647, not '-1'\n");
}

TEST(CommandLine, NamesTheChoices) {
    EXPECT_EQ(complaint({"convert", "a", "b.mp4", "--type", "h266"}),
              "krvqt: unknown encoding type 'h266'; did you mean 'h264'? The types are Original, H.264, HEVC, Custom, "
              "ProRes 422, VP9, AV1, Audio Only\n");
    EXPECT_THAT(complaint({"convert", "a", "b.mp4", "--video-codec", "h266"}),
                StartsWith("krvqt: unknown video codec 'h266'; did you mean 'h264'? The codecs are h264, hevc, "));
    EXPECT_EQ(complaint({"convert", "a", "b.mp4", "--video-codec", "aac"}), "krvqt: AAC is an audio codec\n");
    EXPECT_THAT(complaint({"convert", "a", "b.xyz"}),
                StartsWith("krvqt: .xyz files cannot be written; choose another extension: mov, mp4, "));
    EXPECT_THAT(complaint({"mux", "a", "b"}),
                AllOf(HasSubstr("/b has no extension, which decides the container: mov")));
    EXPECT_THAT(complaint({"convert", "a", "--to", "b", "--container", "xyz"}),
                StartsWith("krvqt: .xyz files cannot be written"));
}

TEST(CommandLine, RefusesStreamsAndURLs) {
    EXPECT_EQ(complaint({"convert", "-", "b.mp4"}), "krvqt: standard input cannot be read; give the name of a file\n");
    EXPECT_EQ(complaint({"merge", "a", "-"}), "krvqt: standard output cannot be written; give the name of a file\n");
    EXPECT_EQ(complaint({"info", "a", "https://b.c/d.mp4"}),
              "krvqt: https://b.c/d.mp4 is a URL, and only files can be read\n");
    EXPECT_EQ(complaint({"times", "file:///a.mp4"}),
              "krvqt: file:///a.mp4 is a URL; give the path of the file instead\n");
    EXPECT_EQ(complaint({"thumbnails", "-", "b"}), "krvqt: standard input cannot be read; give the name of a file\n");
}

TEST(CommandLine, RefusesOptionsThatContradictEachOther) {
    EXPECT_THAT(complaint({"convert", "a", "b", "c.mp4"}), HasSubstr("use --to FOLDER for several"));
    EXPECT_THAT(complaint({"convert", "a", "b", "-o", "c.mp4"}), HasSubstr("use --to FOLDER for several"));
    EXPECT_THAT(complaint({"convert", "a", "--to", "b", "-o", "c.mp4"}), HasSubstr("use one of them"));
    EXPECT_THAT(complaint({"convert", "a", "b.mp4", "--container", "mkv"}), HasSubstr("belongs to --to"));
    EXPECT_THAT(complaint({"convert", "a", "b.mp4", "--flatten", "--fps", "3"}), HasSubstr("--flatten copies"));
    EXPECT_THAT(complaint({"convert", "a", "b.mp4", "--end", "1:99"}), HasSubstr("--end takes seconds"));
    EXPECT_THAT(complaint({"info", "a", "--poster", "p.png"}), HasSubstr("a poster is a JPEG file"));
}

TEST(CommandLine, ReportsWrongUsageAsJSON) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"--json", "conver"}, {"conver", "-j"}, {"times", "--json", "--trakc", "1", "a"}}) {
        const Outcome outcome = run(arguments);
        EXPECT_EQ(outcome.status, kUsage);
        const auto json = nlohmann::json::parse(outcome.out);
        EXPECT_EQ(json["status"], "failed");
        EXPECT_EQ(json["error"]["kind"], "BadArgument");
        EXPECT_EQ("krvqt: " + json["error"]["description"].get<std::string>() + "\n", outcome.err);
    }
    EXPECT_EQ(run({"info", "--nonsense", "--", "--json"}).out, "");
}

TEST(CommandLine, ShowsHelp) {
    const std::string all = run({"--help"}).out;
    EXPECT_EQ(run({"help"}).out, all);
    EXPECT_THAT(all, AllOf(StartsWith("Usage: krvqt COMMAND"), HasSubstr("\n  convert  "), HasSubstr("Exit status:\n"),
                           HasSubstr("\n  130  ")));
    const std::string one = run({"help", "thumbnails"}).out;
    EXPECT_EQ(run({"thumbnails", "--help"}).out, one);
    EXPECT_EQ(run({"thumbnails", "a", "-h"}).out, one);
    EXPECT_THAT(one, AllOf(StartsWith("Usage: krvqt thumbnails [OPTIONS] MOVIE FOLDER\n"), HasSubstr("--count N")));
    EXPECT_EQ(complaint({"help", "thumbnial"}), "krvqt: unknown command 'thumbnial'; did you mean 'thumbnails'?\n");
}

TEST(CommandLine, HelpFitsATerminal) {
    CommandLine line;
    addCommands(line);
    std::string text = helpText(line.description());
    for (const CLI::App* const command : line.description().get_subcommands([](const CLI::App*) { return true; })) {
        text += helpText(*command);
    }
    std::istringstream lines(text);
    for (std::string each; std::getline(lines, each);) {
        EXPECT_LE(each.size(), 80U) << each;
    }
}

TEST(CommandLine, ShowsItsVersion) {
    EXPECT_THAT(run({"--version"}).out, AllOf(StartsWith("krvqt "), EndsWith("\n")));
    EXPECT_EQ(run({"-V"}).out, run({"--version"}).out);
}

TEST(Help, WrapsParagraphs) {
    EXPECT_EQ(wrapped("one two three", 2, 9), "  one two\n  three\n");
    EXPECT_EQ(wrapped("first\n\nincomprehensible", 1, 8), " first\n\n incomprehensible\n");
    EXPECT_EQ(wrapped("", 1, 8), "");
}

}  // namespace
}  // namespace krvqt
