// krvqt as a person uses it, also while the server is started, killed and replaced.
#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sstream>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Shell.h"
#include "SystemFixture.h"

namespace krv::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class Krvqt : public SystemFixture {
protected:
    /// Returns the command line that runs krvqt with its standard error on its standard output.
    static std::vector<std::string> command(const std::vector<std::string>& arguments) {
        std::vector<std::string> all{"sh", "-c", "exec \"$@\" 2>&1", "sh", KRV_KRVQT};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return all;
    }
    static std::pair<int, std::string> run(const std::vector<std::string>& arguments) {
        ChildProcess process(command(arguments));
        std::string text = process.readAll();
        return {process.wait(), text};
    }
    /// Runs krvqt by a shell script, which finds its command line in "$@", in the test's own folder.
    std::pair<int, std::string> runIn(const std::string& script, const std::vector<std::string>& arguments) const {
        std::vector<std::string> all{"sh", "-c", "rm -f pipe; " + script, "sh", KRV_KRVQT};
        all.insert(all.end(), arguments.begin(), arguments.end());
        all[2].insert(0, "cd '" + folder.path().string() + "'; ");
        ChildProcess process(all);
        std::string text = process.readAll();
        return {process.wait(), text};
    }
    std::vector<std::string> conversion(const char* source) const { return {"convert", media(source), out("out.mp4")}; }
    /// Reads until the process prints a line that contains the text.
    static void waitForLine(ChildProcess& process, const std::string& part) {
        while (const auto line = process.readLine()) {
            if (line->find(part) != std::string::npos) {
                return;
            }
        }
        FAIL() << "it exited before it printed " << part;
    }
};

TEST_F(Krvqt, LaunchesTheServerConvertsAndLeavesItRunning) {
    const auto [status, text] = run(conversion("plain.mov"));
    EXPECT_EQ(status, 0);
    EXPECT_THAT(text, AllOf(HasSubstr("100 %"), HasSubstr(out("out.mp4") + "\n"), HasSubstr("krvqt: done")));
    EXPECT_NEAR(readableSeconds(out("out.mp4")), 2.0, 0.1);
    EXPECT_THAT(servers(), testing::SizeIs(1));
}

TEST_F(Krvqt, SaysWhatItDoesIfItIsVerbose) {
    const auto [quiet, silence] = run({"info", media("plain.mov")});
    EXPECT_THAT(silence, Not(HasSubstr("ServerRunner")));
    const auto [status, text] = run({"info", media("plain.mov"), "--verbose"});
    EXPECT_EQ(status, 0);
    EXPECT_THAT(text, AllOf(HasSubstr("ServerRunner"), HasSubstr("H.264, AAC")));
}

TEST_F(Krvqt, RefinesTheEncodingType) {
    const auto size = [this](const std::vector<std::string>& options, const std::string& extension) {
        const std::string file = out("refined." + extension);
        std::vector<std::string> all{"convert", media("plain.mov"), file, "--force"};
        all.insert(all.end(), options.begin(), options.end());
        const auto [status, text] = run(all);
        EXPECT_EQ(status, 0) << text;
        return std::filesystem::file_size(file);
    };
    const auto standard = size({"--type", "H.264"}, "mp4");
    EXPECT_LT(size({"--type", "H.264", "--video-quality", "0.1"}, "mp4"), standard);
    EXPECT_GT(size({"--type", "H.264", "--video-quality", "0.9"}, "mp4"), standard);
    EXPECT_THAT(run({"info", out("refined.mp4")}).second, HasSubstr("H.264, AAC"));
    size({"--type", "HEVC", "--video-quality", "0.5"}, "mkv");
    EXPECT_THAT(run({"info", out("refined.mkv")}).second, HasSubstr("HEVC, AAC"));
    size({"--type", "Custom", "--video-codec", "avc1"}, "mov");
    EXPECT_THAT(run({"info", out("refined.mov")}).second, HasSubstr("H.264, AAC"));
    size({"--type", "ProRes 422", "--fps", "10"}, "mov");
    EXPECT_THAT(run({"info", out("refined.mov")}).second, AllOf(HasSubstr("ProRes, PCM"), HasSubstr("10.000")));
    size({"--type", "Audio Only", "--audio-quality", "0.2"}, "m4a");
    EXPECT_THAT(run({"info", out("refined.m4a")}).second, HasSubstr("codecs      AAC"));
}

TEST_F(Krvqt, RefusesSettingsThatATypeCannotTake) {
    for (const std::vector<std::string>& options :
         {std::vector<std::string>{"--type", "Original", "--video-quality", "0.5"},
          {"--type", "99", "--video-quality", "0.5"},
          {"--type", "Audio Only", "--audio-quality", "0.5"},
          {"--flatten", "--video-quality", "0.5"}}) {
        std::vector<std::string> all = conversion("plain.mov");
        all.insert(all.end(), options.begin(), options.end());
        EXPECT_EQ(run(all).first, 2) << options[1];
    }
    EXPECT_THAT(filesInOut(), IsEmpty());
    EXPECT_THAT(servers(), IsEmpty());
}

TEST_F(Krvqt, ReportsALostServerAndFinishesTheWork) {
    ChildProcess process(command(conversion("longer.mov")));
    waitForLine(process, " %");
    killServer(waitForServer().pid);
    const std::string rest = process.readAll();
    EXPECT_EQ(process.wait(), 0);
    EXPECT_THAT(rest, AllOf(HasSubstr("the media server was lost; another one starts over"), HasSubstr("krvqt: done")));
    EXPECT_NEAR(readableSeconds(out("out.mp4")), 90.0, 0.5);
    EXPECT_THAT(filesInOut(), ElementsAre("out.mp4"));
}

TEST_F(Krvqt, IsCancelledByASignal) {
    ChildProcess process(command(conversion("longer.mov")));
    waitForLine(process, "0 %");
    process.signal(SIGINT);
    EXPECT_THAT(process.readAll(), HasSubstr("krvqt: cancelled; " + out("out.mp4") + " was not written"));
    EXPECT_EQ(process.wait(), 130);
    EXPECT_THAT(filesInOut(), IsEmpty());
}

TEST_F(Krvqt, IsCancelledByAnotherClient) {
    ChildProcess process(command(conversion("longer.mov")));
    waitForLine(process, "0 %");
    const auto [status, text] = run({"cancel-all"});
    EXPECT_EQ(status, 0) << text;
    const std::string rest = process.readAll();
    EXPECT_EQ(process.wait(), 130) << rest;
    EXPECT_THAT(filesInOut(), IsEmpty());
}

TEST_F(Krvqt, ReportsThatNoServerIsRunningWithoutStartingOne) {
    for (const char* command : {"status", "cancel-all", "shutdown"}) {
        const auto [status, text] = run({command});
        EXPECT_EQ(status, 3) << command;
        EXPECT_EQ(text, "krvqt: No media server is running.\n");
    }
    EXPECT_THAT(servers(), IsEmpty());
}

TEST_F(Krvqt, MakesThumbnailsAndListsThem) {
    const auto [status, text] = run({"thumbnails", media("plain.mov"), out("pictures"), "--count", "3", "--quiet"});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(text,
              fmt::format("{0}/thumbnail-0001.jpg\n{0}/thumbnail-0002.jpg\n{0}/thumbnail-0003.jpg\n", out("pictures")));
    // Existing thumbnails are not replaced without --force.
    EXPECT_EQ(run({"thumbnails", media("plain.mov"), out("pictures")}).first, 2);
    const auto [again, json] =
        run({"thumbnails", media("plain.mov"), out("pictures"), "--count", "2", "--quiet", "--json", "--force"});
    EXPECT_EQ(again, 0);
    const auto object = nlohmann::json::parse(json);
    EXPECT_EQ(object["thumbnails"].size(), 2U);
    EXPECT_EQ(object["thumbnails"][0]["path"], out("pictures") + "/thumbnail-0001.jpg");
    EXPECT_EQ(object["thumbnails"][0]["time"], 0.5);
}

TEST_F(Krvqt, DescribesAMovieAndWritesItsPoster) {
    const auto [status, text] = run({"info", media("plain.mov"), "--poster", out("poster.jpg")});
    EXPECT_EQ(status, 0);
    EXPECT_THAT(text, AllOf(HasSubstr("krvqt: the poster was written to " + out("poster.jpg") + "\n"),
                            HasSubstr(media("plain.mov") + "\n"), HasSubstr("H.264, AAC\n"), HasSubstr("320 x 240\n"),
                            HasSubstr("AAC, 48000 Hz, mono\n"), HasSubstr("0:00:02.")));
    EXPECT_GT(std::filesystem::file_size(out("poster.jpg")), 1000U);
    const auto [one, json] = run({"info", media("plain.mov"), "--json"});
    EXPECT_EQ(one, 0);
    const auto object = nlohmann::json::parse(json);
    EXPECT_EQ(object["codec"], "H.264, AAC");
    EXPECT_EQ(object["dimensions"]["width"], 320);
    EXPECT_EQ(object["path"], media("plain.mov"));
}

TEST_F(Krvqt, OneBadMovieDoesNotHideTheOthers) {
    const auto [status, text] = run({"info", media("text.mp4"), media("plain.mov")});
    EXPECT_EQ(status, 1);
    EXPECT_THAT(text, AllOf(HasSubstr("text.mp4"), HasSubstr("H.264, AAC")));
}

TEST_F(Krvqt, MixesDownToStereoAndMerges) {
    EXPECT_EQ(run({"mux", media("surround.mov"), out("stereo.mov")}).first, 0);
    EXPECT_EQ(run({"merge", media("plain.mov"), out("stereo.mov"), out("both.mov")}).first, 0);
    EXPECT_NEAR(readableSeconds(out("both.mov")), 4.0, 0.15);
    EXPECT_THAT(filesInOut(), testing::UnorderedElementsAre("both.mov", "stereo.mov"));
}

TEST_F(Krvqt, NamesTheBadMovieOfAMerge) {
    const auto [status, text] = run({"merge", media("plain.mov"), media("text.mp4"), out("both.mov")});
    EXPECT_EQ(status, 1);
    EXPECT_THAT(text, HasSubstr(media("text.mp4")));
    EXPECT_THAT(filesInOut(), IsEmpty());
}

TEST_F(Krvqt, ListsInterestingTimesInSecondsOrUnits) {
    const auto [status, text] = run({"times", media("chapters.mp4"), "--quiet"});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(text, "0.000000\n1.000000\n");
    const auto [again, json] = run({"times", media("chapters.mp4"), "--json"});
    EXPECT_EQ(again, 0);
    const auto object = nlohmann::json::parse(json);
    EXPECT_EQ(object["values"].size(), 2U);
    EXPECT_EQ(object["values"][1], object["timescale"]);
    const auto [wrong, reason] = run({"times", media("chapters.mp4"), "--track", "9"});
    EXPECT_EQ(wrong, 1);
    EXPECT_THAT(reason, HasSubstr("no track 9"));
}

TEST_F(Krvqt, RefusesNamesThatCannotBeSent) {
    for (const char* command : {"info", "times"}) {
        const auto [status, text] = run({command, "/movies/not-utf8-\xff.mp4"});
        EXPECT_EQ(status, 2);
        EXPECT_THAT(text, AllOf(HasSubstr("not-utf8-\\xff.mp4"), HasSubstr("not UTF-8")));
    }
    EXPECT_THAT(servers(), IsEmpty());
}

TEST_F(Krvqt, AcceptsAllOtherNames) {
    for (const std::string name :
         {"with space.mov", "100 %s %n.mov", "two\nlines.mov", "\"quoted\" 'twice'.mov", "-a.mov"}) {
        std::filesystem::copy_file(media("plain.mov"), out(name));
        const auto [done, json] = run({"info", "--quiet", "--json", out(name)});
        EXPECT_EQ(done, 0) << json;
        EXPECT_EQ(nlohmann::json::parse(json)["path"], out(name));
    }
}

TEST_F(Krvqt, ConvertsSeveralMoviesIntoAFolder) {
    const auto [status, text] =
        run({"convert", media("plain.mov"), media("text.mp4"), media("chapters.mp4"), "--to", out("to"), "--type",
             "hevc", "--video-quality", "0.2", "--container", "mkv", "--quiet", "--json"});
    EXPECT_EQ(status, 1) << "one bad movie does not stop the others";
    std::vector<std::string> outcomes;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with('{')) {
            const auto json = nlohmann::json::parse(line);
            outcomes.push_back(fmt::format("{} {} {}", json["status"].get<std::string>(),
                                           json["source"].get<std::string>(), json["destination"].get<std::string>()));
        }
    }
    EXPECT_THAT(outcomes, ElementsAre(fmt::format("done {} {}", media("plain.mov"), out("to/plain.mkv")),
                                      fmt::format("failed {} {}", media("text.mp4"), out("to/text.mkv")),
                                      fmt::format("done {} {}", media("chapters.mp4"), out("to/chapters.mkv"))));
    EXPECT_THAT(run({"info", out("to/plain.mkv")}).second, HasSubstr("HEVC, AAC"));
    EXPECT_NEAR(readableSeconds(out("to/chapters.mkv")), 2.0, 0.1);
    EXPECT_FALSE(std::filesystem::exists(out("to/text.mkv")));
}

TEST_F(Krvqt, NamesFilesInAFolderByTheirType) {
    const auto names = [this](const std::vector<std::string>& options) {
        std::vector<std::string> all{"convert", media("plain.mov"), media("chapters.mp4"), "--to",
                                     out(""),   "--dry-run"};
        all.insert(all.end(), options.begin(), options.end());
        return run(all).second;
    };
    const auto both = [this](const char* one, const char* other) {
        return out("plain.") + one + "\n" + out("chapters.") + other + "\n";
    };
    EXPECT_EQ(names({}), both("mp4", "mp4"));
    EXPECT_EQ(names({"--type", "prores"}), both("mov", "mov"));
    EXPECT_EQ(names({"--type", "AV1"}), both("webm", "webm"));
    EXPECT_EQ(names({"--type", "audio"}), both("m4a", "m4a"));
    EXPECT_EQ(names({"--type", "Original"}), both("mov", "mp4"));
    EXPECT_EQ(names({"--flatten"}), both("mov", "mp4"));
    EXPECT_EQ(names({"--type", "audio", "--container", ".mp3"}), both("mp3", "mp3"));
    EXPECT_THAT(filesInOut(), IsEmpty());
    EXPECT_THAT(servers(), IsEmpty());
}

TEST_F(Krvqt, TheDestinationMayBeNamedFirst) {
    EXPECT_EQ(run({"merge", "-o", out("both.mov"), media("plain.mov"), media("plain.mov")}).first, 0);
    EXPECT_EQ(run({"mux", media("surround.mov"), "--output", out("stereo.mov")}).first, 0);
    EXPECT_EQ(run({"convert", "-q", "-o", out("out.mp4"), media("plain.mov")}).second, out("out.mp4") + "\n");
    EXPECT_NEAR(readableSeconds(out("both.mov")), 4.0, 0.15);
    EXPECT_NEAR(readableSeconds(out("out.mp4")), 2.0, 0.1);
}

TEST_F(Krvqt, NeverOffersToReplaceASource) {
    std::filesystem::copy_file(media("plain.mov"), out("a.mov"));
    std::filesystem::copy_file(media("plain.mov"), out("b.mov"));
    const auto [status, text] = run({"merge", out("a.mov"), out("b.mov")});
    EXPECT_EQ(status, 2);
    EXPECT_EQ(text,
              "krvqt: " + out("b.mov") + " exists; is the last name the file to write? Name that file with -o FILE\n");
    EXPECT_EQ(run({"merge", out("a.mov"), out("b.mov"), "-o", out("b.mov"), "--force"}).first, 2);
    EXPECT_THAT(servers(), IsEmpty());
}

TEST_F(Krvqt, SettingsTakeRatesWithSuffixes) {
    EXPECT_EQ(run({"convert", media("plain.mov"), out("out.m4a"), "--audio-settings", "bitrate=64k"}).first, 0);
}

TEST_F(Krvqt, SaysWhatItCancelled) {
    EXPECT_EQ(run(conversion("plain.mov")).first, 0);
    EXPECT_EQ(run({"cancel-all"}).second, "krvqt: there was nothing to cancel\n");
    ChildProcess process(command({"convert", media("longer.mov"), out("long.mp4")}));
    waitForLine(process, "0 %");
    EXPECT_THAT(run({"status"}).second,
                AllOf(testing::StartsWith("media server "), HasSubstr("\n1 running, 0 waiting, ")));
    EXPECT_EQ(run({"cancel-all"}).second, "krvqt: cancelled 1 operation\n");
    process.readAll();
    EXPECT_EQ(process.wait(), 130);
}

TEST_F(Krvqt, GivesNoAdviceThatCannotHelp) {
    std::filesystem::create_directory(out("folder"));
    EXPECT_EQ(runShell("mkfifo '" + out("fifo") + "'; : >'" + out("empty.mov") + "'"), 0);
    for (const char* const name : {"folder", "fifo", "empty.mov"}) {
        const auto [status, text] = run({"info", out(name)});
        EXPECT_EQ(status, 1) << name;
        EXPECT_THAT(text, AllOf(HasSubstr(name), testing::Not(HasSubstr("try:")))) << name;
    }
}

TEST_F(Krvqt, PrintsAnObjectForEachMovie) {
    const auto [status, text] =
        runIn("exec \"$@\" 2>/dev/null", {"--json", "info", media("text.mp4"), out("none.mov"), media("plain.mov")});
    EXPECT_EQ(status, 1);
    std::vector<std::string> outcomes;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const auto json = nlohmann::json::parse(line);
        outcomes.push_back(json["status"].get<std::string>() + ' ' + json["path"].get<std::string>());
    }
    EXPECT_THAT(outcomes,
                ElementsAre("failed " + media("text.mp4"), "failed " + out("none.mov"), "done " + media("plain.mov")));
}

TEST_F(Krvqt, ShowsControlCharactersAndLinesOnATerminal) {
    const std::string name = out("a\033[31m.mov");
    std::filesystem::copy_file(media("plain.mov"), name);
    // script runs its command on a terminal of its own.
    const auto onTerminal = [](const std::string& type, const std::string& arguments) {
        const std::string line = "TERM=" + type + " '" + KRV_KRVQT + "' " + arguments;
        ChildProcess process({"script", "--quiet", "--return", "--command", line, "/dev/null"});
        const std::string text = process.readAll();
        EXPECT_EQ(process.wait(), 0) << text;
        return text;
    };
    EXPECT_THAT(onTerminal("xterm", "info '" + name + "'"),
                AllOf(HasSubstr("a\\x1b[31m.mov"), testing::Not(HasSubstr("\033"))));
    EXPECT_THAT(onTerminal("dumb", "convert '" + name + "' '" + out("b.mp4") + "'"),
                AllOf(HasSubstr("100 %"), testing::Not(HasSubstr("\033")), testing::Not(HasSubstr("\r\r"))));
    EXPECT_THAT(onTerminal("xterm", "convert '" + name + "' '" + out("c.mp4") + "'"), HasSubstr("100 %"));
}

TEST_F(Krvqt, FinishesItsWorkIfItsMessagesCannotBeWritten) {
    // The pipe has a reader only until krvqt's end of it is open.
    const std::string pipe = "mkfifo pipe; exec 3<>pipe; exec 4>pipe; exec 3<&-; exec \"$@\" 2>&4";
    for (const std::string& script : {std::string("exec \"$@\" 2>/dev/full"), std::string("exec \"$@\" 2>&-"), pipe}) {
        const auto [status, text] = runIn(script, {"convert", "--force", media("plain.mov"), out("out.mp4")});
        EXPECT_EQ(status, 0) << script;
        EXPECT_EQ(text, out("out.mp4") + "\n") << script;
        EXPECT_NEAR(readableSeconds(out("out.mp4")), 2.0, 0.1) << script;
        std::filesystem::remove(out("out.mp4"));
    }
}

TEST_F(Krvqt, FailsIfItsResultsCannotBeWritten) {
    const std::string pipe = "mkfifo pipe; exec 3<>pipe; exec 4>pipe; exec 3<&-; exec \"$@\" 2>&1 >&4";
    for (const std::string& script :
         {std::string("exec \"$@\" 2>&1 >/dev/full"), std::string("exec \"$@\" 2>&1 >&-"), pipe}) {
        for (const std::vector<std::string>& command : {std::vector<std::string>{"types"},
                                                        {"types", "--json"},
                                                        {"info", media("plain.mov")},
                                                        {"convert", "--force", media("plain.mov"), out("out.mp4")}}) {
            const auto [status, text] = runIn(script, command);
            EXPECT_EQ(status, 1) << script << ' ' << command.front();
            EXPECT_THAT(text, HasSubstr("krvqt: Cannot write the results to standard output: "))
                << script << ' ' << command.front();
        }
        EXPECT_NEAR(readableSeconds(out("out.mp4")), 2.0, 0.1) << script;
        std::filesystem::remove(out("out.mp4"));
    }
}

TEST_F(Krvqt, SaysWhatItWaitsFor) {
    const std::string program = install("krvqt", true, KRV_KRVQT);
    replaceServer(program, KRV_SILENT_SERVER);
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{"info", media("plain.mov")},
                                                      {"times", media("plain.mov")},
                                                      {"convert", media("plain.mov"), out("a.mp4")}}) {
        std::vector<std::string> all = command(arguments);
        all[4] = program;
        ChildProcess process(all);
        waitForLine(process, "krvqt: waiting for the media server: ");
        process.signal(SIGINT);
        process.readAll();
        EXPECT_EQ(process.wait(), 130) << arguments.front();
    }
}

TEST_F(Krvqt, ShutsDownTheServer) {
    EXPECT_EQ(run(conversion("plain.mov")).first, 0);
    EXPECT_EQ(run({"shutdown"}).first, 0);
    waitUntil([] { return servers().empty(); });
}

}  // namespace
}  // namespace krv::test
