#include "Script.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "JSONValue.h"

namespace krv::test_kit {
namespace {

using namespace std::chrono_literals;

std::string problemOf(const std::string& script) {
    try {
        (void)parseScript(script);
    } catch (const ScriptError& problem) {
        return problem.what();
    }
    return "none";
}

TEST(ScriptTest, AnEmptyOneLetsEveryRequestSucceed) {
    const Script script = parseScript("");
    EXPECT_EQ(script.ruleFor(OpEncodeVideo, 1).behaviour, Behaviour::Succeed);
    EXPECT_EQ(script.ruleFor(OpRegisterWithServer, 7).behaviour, Behaviour::Succeed);
    EXPECT_EQ(script.restart, 1s);
}

TEST(ScriptTest, TheFirstRuleThatAppliesIsUsed) {
    const Script script = parseScript(R"({"operation": "convert", "nth": 2, "do": "die"}
{"operation": "convert", "do": "stall"}
{"do": "hang"})");
    EXPECT_EQ(script.ruleFor(OpEncodeVideo, 1).behaviour, Behaviour::Stall);
    EXPECT_EQ(script.ruleFor(OpEncodeVideo, 2).behaviour, Behaviour::Die);
    EXPECT_EQ(script.ruleFor(OpMergeSources, 1).behaviour, Behaviour::Hang);
}

TEST(ScriptTest, ARuleWithoutAnOperationAppliesToMediaOperationsOnly) {
    const Script script = parseScript(R"({"do": "drop"})");
    for (const auto type : {OpEncodeVideo, OpCreateThumbnails, OpProvideMetadata, OpMuxAudioTo2ch, OpMergeSources,
                            OpGetInterestingTimes}) {
        EXPECT_EQ(script.ruleFor(type, 1).behaviour, Behaviour::Drop) << requestName(type);
    }
    for (const auto type : {OpRegisterWithServer, OpProgressAndCompletion, OpCancelOperation, OpShutdownServer}) {
        EXPECT_EQ(script.ruleFor(type, 1).behaviour, Behaviour::Succeed) << requestName(type);
    }
}

TEST(ScriptTest, ARuleCanNameSeveralOperationsAndNumbers) {
    const Script script = parseScript(R"({"operation": ["info", "times"], "nth": [1, 3], "do": "drop"})");
    EXPECT_EQ(script.ruleFor(OpProvideMetadata, 1).behaviour, Behaviour::Drop);
    EXPECT_EQ(script.ruleFor(OpProvideMetadata, 2).behaviour, Behaviour::Succeed);
    EXPECT_EQ(script.ruleFor(OpGetInterestingTimes, 3).behaviour, Behaviour::Drop);
    EXPECT_EQ(script.ruleFor(OpEncodeVideo, 1).behaviour, Behaviour::Succeed);
}

TEST(ScriptTest, ReadsTheCourseOfAnOperation) {
    const Rule rule = parseScript(R"({"do": "fail", "at": 0.4, "progress": [0.1, 0.2], "every": 20, "queue": [2, 1],)"
                                  R"( "delay": 30, "error": {"code": 5, "sentence": "S", "cause": "C", "file": "F"}})")
                          .ruleFor(OpEncodeVideo, 1);
    EXPECT_EQ(rule.behaviour, Behaviour::Fail);
    EXPECT_EQ(rule.at, 0.4);
    EXPECT_EQ(rule.progress, (std::vector{0.1, 0.2}));
    EXPECT_EQ(rule.every, 20ms);
    EXPECT_EQ(rule.queue, (std::vector<std::int64_t>{2, 1}));
    EXPECT_EQ(rule.delay, 30ms);
    EXPECT_EQ(rule.errorCode, 5);
    EXPECT_EQ(rule.sentence, "S");
    EXPECT_EQ(rule.cause, "C");
    EXPECT_EQ(rule.file, "F");
}

TEST(ScriptTest, ReadsResultsWithTheKindsThatJSONDoesNotHave) {
    const Rule rule = parseScript(R"({"result": {"a": [1, 2.5, true, null, "t", {"k": 1}], "s": {"$size": [3, 4]},)"
                                  R"( "d": {"$date": 5}, "b": {"$data": "xy"}}, "arguments": {"e": "f"}})")
                          .ruleFor(OpEncodeVideo, 1);
    const auto list = rule.result["a"].array();
    ASSERT_TRUE(list);
    EXPECT_EQ(*list, (Array{std::int64_t{1}, 2.5, true, nullptr, "t", Dictionary{{"k", std::int64_t{1}}}}));
    EXPECT_EQ(rule.result["s"], Value(Size{3, 4}));
    EXPECT_EQ(rule.result["d"], Value(Date{5}));
    EXPECT_EQ(rule.result["b"], Value(Data{std::byte{'x'}, std::byte{'y'}}));
    EXPECT_EQ(rule.arguments["e"], Value("f"));
}

TEST(ScriptTest, SaysWhatFilesContain) {
    EXPECT_TRUE(parseScript("{}").ruleFor(OpEncodeVideo, 1).contents);
    EXPECT_EQ(parseScript(R"({"write": "movie"})").ruleFor(OpEncodeVideo, 1).contents, "movie");
    EXPECT_EQ(parseScript(R"({"write": false})").ruleFor(OpEncodeVideo, 1).contents, std::nullopt);
}

TEST(ScriptTest, SaysWhenADeadServerIsReplaced) {
    EXPECT_EQ(parseScript(R"({"restart": 70})").restart, 70ms);
    EXPECT_EQ(parseScript(R"({"restart": false})").restart, std::nullopt);
}

TEST(ScriptTest, RulesShareAGateByItsName) {
    const Script script = parseScript(R"({"operation": "convert", "gate": "a"}
{"operation": "merge", "gate": "b"}
{"operation": "info", "gate": "a"})");
    EXPECT_EQ(script.ruleFor(OpEncodeVideo, 1).gate, 0U);
    EXPECT_EQ(script.ruleFor(OpMergeSources, 1).gate, 1U);
    EXPECT_EQ(script.ruleFor(OpProvideMetadata, 1).gate, 0U);
    EXPECT_EQ(script.gateNamed("b"), 1U);
    EXPECT_EQ(script.gateNamed("c"), std::nullopt);
}

TEST(ScriptTest, HasACertainNumberOfGates) {
    std::string script;
    for (std::size_t i = 0; i < Script::kMostGates; ++i) {
        script += "{\"gate\": \"" + std::to_string(i) + "\"}\n";
    }
    EXPECT_EQ(problemOf(script), "none");
    EXPECT_EQ(problemOf(script + R"({"gate": "0"})"), "none");
    EXPECT_EQ(problemOf(script + R"({"gate": "one more"})"),
              "line 65: \"gate\" is empty, has several lines, or is one of more than 64");
}

TEST(ScriptTest, AFullQueueIsErrorOne) {
    const Rule rule = parseScript(R"({"do": "queueFull"})").ruleFor(OpEncodeVideo, 1);
    EXPECT_EQ(rule.behaviour, Behaviour::Fail);
    EXPECT_EQ(rule.errorCode, 1);
}

TEST(ScriptTest, EmptyLinesAndCommentsAreSkippedButCounted) {
    EXPECT_EQ(problemOf("# comment\n\n  # another\n{\"x\": 1}\n"), "line 4: a rule has no key \"x\"");
    EXPECT_EQ(problemOf("# comment\r\n\r\n{\"do\": \"drop\"}\r\n"), "none");
}

TEST(ScriptTest, NamesTheLineAndTheProblem) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {R"({"do": )", "line 1, column 8: not a JSON object"},
        {"[]", "line 1: it is not a JSON object"},
        {R"({"operation": "transcode"})",
         "line 1: the operation \"transcode\" is not one of convert, thumbnails, info, muxTo2ch, merge, times, count, "
         "ready, register, unregister, amIRegistered, cancel, cancelAll, progress, result, removeResult, shutdown"},
        {R"({"do": 3})", "line 1: the behaviour \"3\" is not one of succeed, fail, die, exit, stall, forget, garbage, "
                         "status, drop, hang, queueFull"},
        {R"({"nth": 0})", "line 1: \"nth\" is not an integer from 1 to 3600000"},
        {R"({"nth": 1.5})", "line 1: \"nth\" is not an integer from 1 to 3600000"},
        {R"({"every": 99999999999999999999})", "line 1: \"every\" is not an integer from 0 to 3600000"},
        {R"({"every": 18446744073709551615})", "line 1: \"every\" is not an integer from 0 to 3600000"},
        {R"({"at": 1, "do": "die"})", "line 1: \"at\" is not a number from 0 to less than 1"},
        {R"({"progress": "half"})", "line 1: \"progress\" is not a number from 0 to less than 1"},
        {R"({"write": 1})", "line 1: \"write\" is not a string"},
        {R"({"write": true})", "line 1: \"write\" is not a string"},
        {R"({"result": []})", "line 1: \"result\" is not an object"},
        {R"({"result": {"a": {"$size": 1}}})", "line 1: {\"$size\": 1} is not a value"},
        {R"({"do": "fail"})", "line 1: \"fail\" needs \"error\" with a \"code\""},
        {R"({"do": "fail", "error": {"code": 11}})", "line 1: \"code\" is not an integer from 1 to 10"},
        {R"({"do": "fail", "error": {"text": "x"}})", "line 1: \"error\" has no key \"text\""},
        {R"({"do": "status"})", "line 1: \"status\" needs the key \"status\""},
        {R"({"at": 0.5})", "line 1: \"at\" needs a behaviour other than \"succeed\""},
        {R"({"operation": "register", "do": "stall"})", "line 1: only media operations have a progress"},
        {R"({"operation": "cancel", "do": "die", "at": 0.5})", "line 1: only media operations have a progress"},
        {R"({"gate": ""})", "line 1: \"gate\" is empty, has several lines, or is one of more than 64"},
        {R"({"gate": "a\nb"})", "line 1: \"gate\" is empty, has several lines, or is one of more than 64"},
        {R"({"do": "die", "gate": "a"})",
         "line 1: \"gate\" needs \"at\", because the request itself meets the behaviour"},
        {R"({"operation": "cancel", "gate": "a"})", "line 1: only media operations have a progress"},
        {R"({"restart": true})", "line 1: \"restart\" is not an integer from 0 to 3600000"},
        {R"({"restart": 1, "do": "die"})", "line 1: \"restart\" needs a line of its own"},
    };
    for (const auto& [script, problem] : cases) {
        EXPECT_EQ(problemOf(script), problem) << script;
    }
}

TEST(ScriptTest, RequestsOfUnknownTypesAreNamedByTheirNumber) {
    EXPECT_EQ(requestName(OpEncodeVideo), "convert");
    EXPECT_EQ(requestName(99), "99");
}

}  // namespace
}  // namespace krv::test_kit
