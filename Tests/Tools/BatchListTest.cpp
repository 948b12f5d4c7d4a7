#include "BatchList.h"

#include <gmock/gmock.h>

#include "BatchDisplay.h"

namespace krvqt {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

BatchList parse(std::string_view text) {
    return parseBatchList(text, "/work folder");
}

std::string problemOf(std::string_view line) {
    const auto list = parse(line);
    return list.problems.empty() ? "" : list.problems.front();
}

TEST(BatchList, ReadsEachCommand) {
    const auto list = parse(R"({"command":"convert","source":"a.mov","destination":"/b.mp4","type":"HEVC","force":true}
{"command":"flatten","source":"a.mov","destination":"c.mp4","start":1.5,"end":"0:02"}

{"command":"mux","source":"a.mov","destination":"d.mov"}
{"command":"merge","sources":["a.mov","b.mov"],"destination":"e.mov","shortest":true,"size":"640x360","fps":25}
{"command":"thumbnails","source":"a.mov","destination":"pictures","count":3}
{"command":"info","source":"a.mov"}
{"command":"times","source":"a.mov","track":0})");
    EXPECT_THAT(list.problems, IsEmpty());
    ASSERT_EQ(list.jobs.size(), 7U);
    EXPECT_EQ(list.lines, 8U);
    EXPECT_EQ(list.jobs[0].command, "convert");
    EXPECT_THAT(list.jobs[0].sources, ElementsAre("/work folder/a.mov"));
    EXPECT_EQ(list.jobs[0].destination, "/b.mp4");
    EXPECT_TRUE(list.jobs[0].force);
    EXPECT_EQ(list.jobs[2].line, 4U);
    EXPECT_FALSE(list.jobs[2].force);
    EXPECT_THAT(list.jobs[3].sources, ElementsAre("/work folder/a.mov", "/work folder/b.mov"));
    EXPECT_EQ(list.jobs[5].destination, "");
}

TEST(BatchList, DescribesTheSameWorkInTheSameWay) {
    const auto one = parse(R"({"command":"convert","source":"./a.mov","destination":"x/../b.mp4"})");
    const auto other = parse(R"(  {"destination": "/work folder/b.mp4", "source": "a.mov", "command": "convert"})"
                             "\r\n");
    EXPECT_EQ(one.jobs.at(0).description, other.jobs.at(0).description);
    const auto third = parse(R"({"command":"convert","source":"a.mov","destination":"b.mp4","type":"HEVC"})");
    EXPECT_NE(one.jobs.at(0).description, third.jobs.at(0).description);
}

TEST(BatchList, NamesTheLineAndTheProblem) {
    EXPECT_EQ(problemOf("\n\n{"), "Line 3: it is not valid JSON in UTF-8.");
    EXPECT_EQ(problemOf("{\"command\":\"info\",\"source\":\"\xff\"}"), "Line 1: it is not valid JSON in UTF-8.");
    EXPECT_EQ(problemOf("[]"), "Line 1: it is not a JSON object.");
    EXPECT_EQ(problemOf("{}"), "Line 1: it has no \"command\".");
    EXPECT_THAT(problemOf(R"({"command":"conver"})"), HasSubstr("\"conver\" is not a command of a batch: convert,"));
    EXPECT_EQ(problemOf(R"({"command":"info"})"), "Line 1: it has no \"source\".");
    EXPECT_EQ(problemOf(R"({"command":"mux","source":"a"})"), "Line 1: it has no \"destination\".");
    EXPECT_EQ(problemOf(R"({"command":"info","source":"a","destination":"b"})"),
              "Line 1: \"destination\" is not an option of info.");
    EXPECT_EQ(problemOf(R"({"command":"mux","source":"a","destination":"b","type":"HEVC"})"),
              "Line 1: \"type\" is not an option of mux.");
    EXPECT_EQ(problemOf(R"({"command":"info","source":7})"), "Line 1: \"source\" must be the name of a file.");
    EXPECT_EQ(problemOf(R"({"command":"info","source":""})"), "Line 1: \"source\" must be the name of a file.");
    for (const char* sources : {"[]", "\"a\"", "[1]", "null", "[\"a\",\"\"]"}) {
        EXPECT_THAT(problemOf(std::string(R"({"command":"merge","destination":"b","sources":)") + sources + "}"),
                    HasSubstr("\"sources\" must be"))
            << sources;
    }
}

TEST(BatchList, ChecksTheValuesOfOptions) {
    const auto problem = [](const std::string& command, const std::string& option) {
        return problemOf(R"({"command":")" + command + R"(","source":"a","destination":"b",)" + option + "}");
    };
    for (const char* option :
         {R"("type":"h264")", R"("type":2)", R"("video-codec":"hevc")", R"("video-quality":0.5)", R"("fps":0)",
          R"("start":"1:30")", R"("end":90.5)", R"("audio-tracks":"1,deu")", R"("strict":false)", R"("force":true)"}) {
        EXPECT_EQ(problem("convert", option), "") << option;
    }
    for (const char* option : {R"("type":"nonsense")", R"("type":true)", R"("type":99)", R"("video-codec":"no codec")",
                               R"("video-quality":3)", R"("video-quality":"0.5")", R"("video-quality":-0.1)",
                               R"("fps":-1)", R"("start":"x")", R"("start":-1)", R"("end":[])", R"("audio-tracks":1)",
                               R"("audio-tracks":"")", R"("strict":1)", R"("force":"yes")"}) {
        EXPECT_THAT(problem("convert", option), HasSubstr("must be")) << option;
    }
    for (const char* option :
         {R"("count":0)", R"("count":1.5)", R"("count":10000)", R"("size":"big")", R"("size":7)"}) {
        EXPECT_THAT(problem("thumbnails", option), HasSubstr("must be")) << option;
    }
    EXPECT_THAT(problemOf(R"({"command":"times","source":"a","track":-1})"), HasSubstr("must be"));
    EXPECT_THAT(problemOf(R"({"command":"times","source":"a","track":99999999999})"), HasSubstr("must be"));
}

TEST(BatchList, RefusesTwoJobsThatWriteTheSameFile) {
    const auto list = parse(R"({"command":"mux","source":"a","destination":"b"}
{"command":"mux","source":"c","destination":"./x/../b"})");
    EXPECT_THAT(list.problems, ElementsAre("Line 2: /work folder/b is written by line 1, too."));
}

TEST(BatchList, RefusesAJobThatReadsWhatAnotherOneWrites) {
    const auto list = parse(R"({"command":"info","source":"b"}
{"command":"mux","source":"a","destination":"b"})");
    EXPECT_THAT(list.problems, ElementsAre("Line 1: /work folder/b is written by line 2, and jobs run in any order."));
}

TEST(BatchList, ReportsEveryProblem) {
    EXPECT_EQ(parse("x\ny\n{\"command\":\"info\",\"source\":\"a\"}\nz").problems.size(), 3U);
}

TEST(FittingName, IsShortenedToTheColumns) {
    EXPECT_EQ(fittingName("holiday.mov", 11), "holiday.mov");
    EXPECT_EQ(fittingName("holiday.mov", 10), "holiday...");
    EXPECT_EQ(fittingName("holiday.mov", 3), "...");
    EXPECT_EQ(fittingName("holiday.mov", 2), "");
    EXPECT_EQ(fittingName("holiday.mov", -5), "");
}

TEST(FittingName, CountsWideCharactersTwice) {
    EXPECT_EQ(fittingName("\u6620\u753b.mov", 8), "\u6620\u753b.mov");
    EXPECT_EQ(fittingName("\u6620\u753b.mov", 7), "\u6620\u753b...");
    EXPECT_EQ(fittingName("\u6620\u753b.mov", 6), "\u6620...");
    EXPECT_EQ(fittingName("\u00e4\u00f6.mov", 6), "\u00e4\u00f6.mov");
}

TEST(FittingName, ReplacesControlCharacters) {
    EXPECT_EQ(fittingName("a\x1b[2Jb\nc\x7f\u0085", 20), "a?[2Jb?c??");
}

TEST(FittingName, TakesBytesThatAreNotUTF8) {
    EXPECT_EQ(fittingName("a\xf0", 20).substr(0, 1), "a");
}

}  // namespace
}  // namespace krvqt
