// Batches with the real server: interrupted, killed, repeated and divided among processes.
#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "SystemFixture.h"

namespace krv::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::UnorderedElementsAre;
using Json = nlohmann::json;

class Batch : public SystemFixture {
protected:
    static std::vector<std::string> command(const std::vector<std::string>& arguments) {
        std::vector<std::string> all{"sh", "-c", "exec \"$@\" 2>&1", "sh", KRV_KRVQT, "batch"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return all;
    }
    static std::pair<int, std::string> run(const std::vector<std::string>& arguments) {
        ChildProcess process(command(arguments));
        std::string text = process.readAll();
        return {process.wait(), text};
    }
    Json conversion(const char* source, const std::string& destination) const {
        return {{"command", "convert"}, {"source", media(source)}, {"destination", out(destination)}};
    }
    std::string write(const std::vector<Json>& jobs) const {
        std::string text;
        for (const Json& job : jobs) {
            text += job.dump() + "\n";
        }
        return folder.write("list.jsonl", text);
    }
    std::string resultsFile() const { return (folder.path() / "list.results.jsonl").string(); }
    std::vector<Json> rows() const { return rowsOf(resultsFile()); }
    static std::vector<Json> rowsOf(const std::string& file) {
        std::vector<Json> rows;
        std::ifstream in(file);
        for (std::string line; std::getline(in, line);) {
            rows.push_back(Json::parse(line, nullptr, false));
        }
        return rows;
    }
    /// Returns how often each line of the list has ended in this way.
    std::map<int, int> linesThat(const std::string& status) const {
        std::map<int, int> lines;
        for (const Json& row : rows()) {
            if (row.is_object() && row["status"] == status) {
                ++lines[row["line"]];
            }
        }
        return lines;
    }
};

TEST_F(Batch, RunsEveryCommandAndNotesWhatHasComeOfIt) {
    const std::string list = write(
        {conversion("plain.mov", "a.mp4"),
         {{"command", "flatten"}, {"source", media("plain.mov")}, {"destination", out("b.mov")}},
         {{"command", "mux"}, {"source", media("plain.mov")}, {"destination", out("c.mov")}},
         {{"command", "merge"}, {"sources", {media("plain.mov"), media("plain.mov")}}, {"destination", out("d.mov")}},
         {{"command", "thumbnails"}, {"source", media("plain.mov")}, {"destination", out("pictures")}, {"count", 2}},
         {{"command", "info"}, {"source", media("plain.mov")}},
         {{"command", "times"}, {"source", media("plain.mov")}}});
    const auto [status, text] = run({list, "--jobs", "2"});
    EXPECT_EQ(status, 0) << text;
    EXPECT_THAT(text, AllOf(HasSubstr(out("a.mp4") + "\n"), HasSubstr("krvqt: 7 of 7 jobs done in ")));
    EXPECT_THAT(filesInOut(), UnorderedElementsAre("a.mp4", "b.mov", "c.mov", "d.mov", "pictures"));
    EXPECT_NEAR(readableSeconds(out("d.mov")), 4.0, 0.2);
    std::map<int, Json> done;
    for (const Json& row : rows()) {
        if (row["status"] == "done") {
            done[row["line"]] = row;
        }
    }
    ASSERT_THAT(done, SizeIs(7));
    EXPECT_EQ(done[1]["bytes"], std::filesystem::file_size(out("a.mp4")));
    EXPECT_EQ(done[1]["droppedTracks"], Json::array());
    EXPECT_EQ(done[1]["job"]["destination"], out("a.mp4"));
    EXPECT_GT(done[1]["seconds"], 0);
    EXPECT_THAT(done[5]["thumbnails"], SizeIs(2));
    EXPECT_EQ(done[6]["info"]["codecs"], "H.264, AAC");
    EXPECT_EQ(done[7]["times"]["values"][0], 0);
}

TEST_F(Batch, IsRefusedBeforeAnyWorkIfALineIsWrong) {
    folder.write("out/there.mp4", "old");
    const std::string list =
        folder.write("list.jsonl", conversion("plain.mov", "a.mp4").dump() + "\n{\"command\":\"mux\"}\n");
    const auto [status, text] = run({list});
    EXPECT_EQ(status, 2);
    EXPECT_THAT(text, HasSubstr(list + ": Line 2: it has no \"source\"."));
    EXPECT_THAT(servers(), IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(resultsFile()));
    // A destination that exists is such an error, too.
    write({conversion("plain.mov", "a.mp4"), conversion("plain.mov", "there.mp4")});
    const auto [again, message] = run({list});
    EXPECT_EQ(again, 2);
    EXPECT_THAT(message, HasSubstr("Line 2: " + out("there.mp4") + " exists"));
    ChildProcess json({"sh", "-c", "exec \"$@\" 2>/dev/null", "sh", KRV_KRVQT, "batch", list, "--json"});
    const Json error = Json::parse(json.readAll())["error"];
    EXPECT_EQ(error["kind"], "BadArgument");
    EXPECT_THAT(error["problems"], SizeIs(1));
    EXPECT_THAT(filesInOut(), UnorderedElementsAre("there.mp4"));
    EXPECT_EQ(run({list, "--force"}).first, 0);
    EXPECT_NEAR(readableSeconds(out("there.mp4")), 2.0, 0.1);
}

TEST_F(Batch, NamesEveryProblemOfAList) {
    const std::string list = folder.write(
        "list.jsonl", "{\"command\":\"mux\"}\n{\"command\":\"\\u001b[2J\"}\nnonsense\n" +
                          Json{{"command", "mux"}, {"source", "\x1b[31m"}, {"destination", "a"}}.dump() + "\n" +
                          Json{{"command", "mux"}, {"source", "b"}, {"destination", "\x1b[31m"}}.dump() + "\n");
    const auto [status, text] = run({list});
    EXPECT_EQ(status, 2);
    for (const char* line : {"Line 1: it has no", "Line 2: ", "Line 3: it is not", "Line 4: "}) {
        EXPECT_THAT(text, HasSubstr(line));
    }
    ChildProcess json({"sh", "-c", "exec \"$@\" 2>/dev/null", "sh", KRV_KRVQT, "batch", list, "--json"});
    const Json object = Json::parse(json.readLine().value_or(""));
    EXPECT_THAT(object["problems"], SizeIs(4));
    EXPECT_EQ(json.readLine(), std::nullopt);
    EXPECT_EQ(json.wait(), 2);
}

TEST_F(Batch, GoesOnAfterAFailureAndTriesItAgainTheNextTime) {
    const std::string bad = folder.write("bad.mov", "not a movie");
    Json failing = conversion("plain.mov", "bad.mp4");
    failing["source"] = bad;
    const std::string list = write({failing, conversion("plain.mov", "a.mp4")});
    const auto [status, text] = run({list, "--jobs", "1"});
    EXPECT_EQ(status, 1);
    EXPECT_THAT(text,
                AllOf(HasSubstr("krvqt: line 1: Cannot convert bad.mov"), HasSubstr("1 of 2 jobs done, 1 failed")));
    EXPECT_THAT(rows(), SizeIs(4));
    EXPECT_EQ(rows()[1]["error"]["kind"], "NotMedia");
    const auto [skipping, skipped] = run({list, "--skip-failed"});
    EXPECT_EQ(skipping, 1);
    EXPECT_THAT(skipped, HasSubstr("0 of 0 jobs done, 1 done earlier, 1 failed earlier"));
    EXPECT_THAT(rows(), SizeIs(4));
    std::filesystem::copy_file(media("plain.mov"), bad, std::filesystem::copy_options::overwrite_existing);
    const auto [mended, last] = run({list});
    EXPECT_EQ(mended, 0) << last;
    EXPECT_THAT(last, HasSubstr("1 of 1 jobs done, 1 done earlier"));
    EXPECT_EQ(linesThat("done"), (std::map<int, int>{{1, 1}, {2, 1}}));
}

TEST_F(Batch, IsCancelledByASignalAndGoesOnTheNextTime) {
    const std::string list =
        write({conversion("plain.mov", "a.mp4"), conversion("longer.mov", "b.mp4"), conversion("plain.mov", "c.mp4")});
    ChildProcess process(command({list, "--jobs", "1"}));
    while (const auto line = process.readLine()) {
        if (*line == out("a.mp4")) {
            break;
        }
    }
    waitUntil([&] { return linesThat("started").contains(2); });
    process.signal(SIGINT);
    const std::string text = process.readAll();
    EXPECT_EQ(process.wait(), 130) << text;
    EXPECT_THAT(text, HasSubstr("1 of 3 jobs done, 2 left"));
    EXPECT_EQ(linesThat("cancelled"), (std::map<int, int>{{2, 1}}));
    EXPECT_THAT(filesInOut(), UnorderedElementsAre("a.mp4"));
    EXPECT_EQ(run({list}).first, 0);
    EXPECT_EQ(linesThat("done"), (std::map<int, int>{{1, 1}, {2, 1}, {3, 1}}));
    EXPECT_NEAR(readableSeconds(out("b.mp4")), 90.0, 0.5);
}

TEST_F(Batch, KilledInTheMiddleGoesOnAndWritesEveryFileOnce) {
    std::vector<Json> jobs;
    for (int i = 1; i <= 6; ++i) {
        jobs.push_back(conversion("plain.mov", fmt::format("{}.mp4", i)));
    }
    jobs.push_back(conversion("longer.mov", "7.mp4"));
    const std::string list = write(jobs);
    for (int killAfter = 1; killAfter <= 3; ++killAfter) {
        ChildProcess process(command({list, "--jobs", "2"}));
        const auto done = [&] { return static_cast<int>(linesThat("done").size()); };
        waitUntil([&] { return done() >= 2 * killAfter; });
        process.signal(SIGKILL);
        process.wait();
    }
    const auto [status, text] = run({list});
    EXPECT_EQ(status, 0) << text;
    std::map<int, int> once;
    for (int i = 1; i <= 7; ++i) {
        once[i] = 1;
        EXPECT_NEAR(readableSeconds(out(fmt::format("{}.mp4", i))), i == 7 ? 90.0 : 2.0, 0.5);
    }
    EXPECT_EQ(linesThat("done"), once);
    EXPECT_THAT(filesInOut(), SizeIs(7));
}

TEST_F(Batch, ReplacesWhatAnInterruptedJobLeftBehind) {
    const Json job = conversion("plain.mov", "a.mp4");
    const std::string list = write({job});
    folder.write("list.results.jsonl",
                 Json{{"line", 1}, {"status", "started"}, {"job", job}}.dump() + "\n{\"line\":1,\"sta");
    folder.write("out/a.mp4", "complete, but not noted");
    EXPECT_EQ(run({list}).first, 0);
    EXPECT_NEAR(readableSeconds(out("a.mp4")), 2.0, 0.1);
    EXPECT_EQ(linesThat("done"), (std::map<int, int>{{1, 1}}));
}

TEST_F(Batch, SurvivesTheLossOfTheServer) {
    const std::string list = write({conversion("longer.mov", "a.mp4"), conversion("longer.mov", "b.mp4")});
    ChildProcess process(command({list, "--jobs", "2"}));
    waitUntil([&] { return linesThat("started").size() == 2; });
    const Serving server = waitForServer();
    waitUntil([&] { return Json::parse(status(server.port))["running"] == 2; });
    killServer(server.pid);
    const std::string text = process.readAll();
    EXPECT_EQ(process.wait(), 0) << text;
    EXPECT_THAT(text, HasSubstr("the media server was lost; another one starts over"));
    EXPECT_EQ(linesThat("done"), (std::map<int, int>{{1, 1}, {2, 1}}));
}

TEST_F(Batch, EndsIfThereIsNoServer) {
    const std::string program = install("App", false, KRV_KRVQT);
    const std::string list = write({conversion("plain.mov", "a.mp4"), conversion("plain.mov", "b.mp4")});
    ChildProcess process(
        {"sh", "-c", "exec \"$@\" 2>&1", "sh", program, "batch", list, "--jobs", "1", "--wait", "0.2"});
    const std::string text = process.readAll();
    EXPECT_EQ(process.wait(), 3) << text;
    EXPECT_THAT(text, HasSubstr("0 of 2 jobs done, 2 left"));
    EXPECT_THAT(linesThat("failed"), IsEmpty());
}

TEST_F(Batch, PrintsARowForEachJob) {
    const std::string list = write({conversion("plain.mov", "a.mp4"), conversion("missing.mov", "b.mp4")});
    ChildProcess process({KRV_KRVQT, "batch", list, "--json", "--quiet", "--jobs", "1"});
    const Json first = Json::parse(process.readLine().value());
    const Json second = Json::parse(process.readLine().value());
    EXPECT_EQ(process.readAll(), "");
    EXPECT_EQ(process.wait(), 1);
    EXPECT_EQ(first["status"], "done");
    EXPECT_EQ(second["status"], "failed");
    EXPECT_EQ(second["error"]["kind"], "SourceMissing");
    EXPECT_EQ(second["line"], 2);
}

TEST_F(Batch, RunsPartsOfTheList) {
    std::vector<Json> jobs;
    for (int i = 1; i <= 5; ++i) {
        jobs.push_back({{"command", "info"}, {"source", media("plain.mov")}, {"force", nullptr}});
        jobs.back().erase("force");
        jobs.back()["source"] = folder.write(fmt::format("{}.mov", i), "");
        std::filesystem::copy_file(media("plain.mov"), folder.path() / fmt::format("{}.mov", i),
                                   std::filesystem::copy_options::overwrite_existing);
    }
    const std::string list = write(jobs);
    EXPECT_EQ(run({list, "--only", "2-3"}).first, 0);
    EXPECT_EQ(linesThat("done"), (std::map<int, int>{{2, 1}, {3, 1}}));
    EXPECT_EQ(run({list, "--task", "1/2"}).first, 0);
    EXPECT_EQ(linesThat("done"), (std::map<int, int>{{1, 1}, {2, 1}, {3, 1}, {5, 1}}));
    EXPECT_EQ(run({list, "--only", "4"}).first, 0);
    EXPECT_EQ(linesThat("done").size(), 5U);
    for (const std::vector<std::string>& wrong : {std::vector<std::string>{"--only", "6"},
                                                  {"--only", "0"},
                                                  {"--only", "3-2"},
                                                  {"--only", "x"},
                                                  {"--task", "3/2"},
                                                  {"--task", "2"},
                                                  {"--task", "0/2"},
                                                  {"--jobs", "0"},
                                                  {"--results", list}}) {
        std::vector<std::string> arguments{list};
        arguments.insert(arguments.end(), wrong.begin(), wrong.end());
        EXPECT_EQ(run(arguments).first, 2) << wrong[0] << ' ' << wrong[1];
    }
}

TEST_F(Batch, IsDividedByGNUParallel) {
    std::vector<Json> jobs;
    for (int i = 1; i <= 6; ++i) {
        jobs.push_back(conversion("plain.mov", fmt::format("{}.mp4", i)));
    }
    const std::string list = write(jobs);
    ChildProcess parallel(
        {"sh", "-c", "seq 6 | parallel --will-cite -j 3 \"$1\" batch \"$2\" --quiet --only {}", "sh", KRV_KRVQT, list});
    const std::string text = parallel.readAll();
    EXPECT_EQ(parallel.wait(), 0) << text;
    EXPECT_THAT(filesInOut(), SizeIs(6));
    EXPECT_THAT(rows(), SizeIs(12));
    EXPECT_THAT(linesThat("done"), SizeIs(6));
    EXPECT_THAT(servers(), SizeIs(1));
    // The whole list knows that nothing is left to do.
    EXPECT_THAT(run({list}).second, HasSubstr("0 of 0 jobs done, 6 done earlier"));
}

TEST_F(Batch, EndsIfTheResultsCannotBeWritten) {
    const std::string list = write({conversion("plain.mov", "a.mp4")});
    const auto [status, text] = run({list, "--results", "/dev/full"});
    EXPECT_EQ(status, 1);
    EXPECT_THAT(text, HasSubstr("Cannot write the results: /dev/full: No space left on device."));
    EXPECT_THAT(filesInOut(), IsEmpty());
    EXPECT_EQ(run({list, "--results", "/nonexistent/results"}).first, 1);
}

}  // namespace
}  // namespace krv::test
