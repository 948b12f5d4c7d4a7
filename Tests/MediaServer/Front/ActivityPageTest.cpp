// The contents of the activity page and of its data.
#include <algorithm>
#include <string>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <MediaServer/Front/ActivityPage.h>

namespace krv::server {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kHostile = "/movies/<img src=x onerror=alert(1)>&\"'.mov";

ServerActivity activity(const std::string& source = "/movies/holiday.mov") {
    ServerActivity activity;
    activity.status = {
        .version = "1", .pid = 7, .port = 8000, .uptime = 3725s, .clients = {42}, .running = 1, .workers = 2};
    const auto request = KRVOperationBase::encodeVideoOperation(source, "/out/holiday.mp4");
    activity.operations.running.push_back(
        {{.number = 5, .request = request, .client = {42, 1}, .waited = 3s}, 0.437, 71s, 90s});
    activity.operations.waiting.push_back({.number = 6,
                                           .request = KRVOperationBase::provideMetadataFor("/movies/next.mov"),
                                           .client = {43, 1},
                                           .waited = 9s});
    activity.operations.waitingInAll = 4;
    activity.operations.problems.push_back({1, 10s, "Cannot convert bad.mov: it is empty."});
    activity.workers = {{100, request.get()}, {101, nullptr}};
    activity.programs[42] = "editor";
    activity.now = std::chrono::system_clock::time_point(1700000000s);
    return activity;
}

nlohmann::json dataOf(const ServerActivity& activity) {
    return nlohmann::json::parse(activityData(activity).body);
}

std::string headerOf(const Page& page, const std::string& name) {
    const auto its =
        std::find_if(page.headers.begin(), page.headers.end(), [&](const auto& each) { return each.first == name; });
    return its == page.headers.end() ? "" : its->second;
}

TEST(ActivityData, DescribesWhatRuns) {
    const auto operation = dataOf(activity())["operations"][0];
    EXPECT_EQ(operation["operation"], "Convert");
    EXPECT_EQ(operation["source"], "holiday.mov");
    EXPECT_EQ(operation["destination"], "holiday.mp4");
    EXPECT_EQ(operation["fraction"], 0.437);
    EXPECT_EQ(operation["elapsed"], 71);
    EXPECT_EQ(operation["remaining"], 90);
    EXPECT_EQ(operation["client"]["name"], "editor");
    EXPECT_EQ(operation["client"]["pid"], 42);
}

TEST(ActivityData, HasNoRemainingTimeBeforeThereIsAnEstimate) {
    auto early = activity();
    early.operations.running[0].remaining.reset();
    EXPECT_TRUE(dataOf(early)["operations"][0]["remaining"].is_null());
}

TEST(ActivityData, DescribesWhatWaitsAndHowManyMoreDo) {
    const auto data = dataOf(activity());
    EXPECT_EQ(data["queue"][0]["operation"], "Describe");
    EXPECT_EQ(data["queue"][0]["source"], "next.mov");
    EXPECT_EQ(data["queue"][0]["client"]["name"], "an application");
    EXPECT_EQ(data["more"], 3);
}

TEST(ActivityData, SaysWhatEachWorkerDoes) {
    auto three = activity();
    const auto gone = KRVOperationBase::provideMetadataFor("/gone");
    three.workers.push_back({102, gone.get()});
    const auto workers = dataOf(three)["processes"];
    EXPECT_EQ(workers[0]["pid"], 100);
    EXPECT_EQ(workers[0]["state"], "working");
    EXPECT_EQ(workers[0]["source"], "holiday.mov");
    EXPECT_EQ(workers[1]["state"], "idle");
    EXPECT_EQ(workers[2]["state"], "ending");
}

TEST(ActivityData, SaysWhenAnErrorOccurred) {
    const auto error = dataOf(activity())["errors"][0];
    EXPECT_EQ(error["time"], 1700000000 - 10);
    EXPECT_EQ(error["sentence"], "Cannot convert bad.mov: it is empty.");
}

TEST(ActivityData, NamesOneSourceOfAMergeAndCountsThem) {
    auto merging = activity();
    merging.operations.running[0].request = KRVOperationBase::mergeSourcesOperation(
        Value(Array{Value("/a/one.mov"), Value("/a/two.mov")}), "/all.mov", false);
    const auto operation = dataOf(merging)["operations"][0];
    EXPECT_EQ(operation["source"], "one.mov");
    EXPECT_EQ(operation["sources"], 2);
    EXPECT_THAT(activityPage(merging).body, HasSubstr("one.mov and 1 more"));
}

TEST(ActivityData, ShortensNamesThatNoFileCanHave) {
    const auto data = activityData(activity("/" + std::string(100'000, 'n')));
    EXPECT_LT(data.body.size(), 5'000U);
}

TEST(ActivityData, IsValidEvenIfAShortenedNameIsNot) {
    std::string name(254, 'n');
    name += "\u00E4\u00E4";
    EXPECT_THAT(dataOf(activity("/" + name))["operations"][0]["source"], std::string(254, 'n') + "\uFFFD");
}

TEST(ActivityPage, ShowsTheMomentWithoutItsScript) {
    const std::string page = activityPage(activity()).body;
    EXPECT_THAT(page, AllOf(HasSubstr("<title>1 running – Media server</title>"), HasSubstr("up 1:02:05"),
                            HasSubstr("holiday.mov"), HasSubstr("43 % · 1:11 elapsed · 1:30 left"),
                            HasSubstr("editor (42)"), HasSubstr("waiting for 0:09"), HasSubstr("and 3 more"),
                            HasSubstr("Cannot convert bad.mov: it is empty.")));
    EXPECT_THAT(page, ContainsRegex("<progress max=\"1\" value=\"0.4370\" aria-label=\"Convert holiday.mov\">"));
}

TEST(ActivityPage, ShowsNamesAsText) {
    auto hostile = activity(kHostile);
    hostile.operations.problems[0].sentence = "<script>alert(1)</script>";
    hostile.programs[42] = "<b>";
    const std::string page = activityPage(hostile).body;
    EXPECT_THAT(page, Not(HasSubstr("<img")));
    EXPECT_THAT(page, Not(HasSubstr("<script>alert")));
    EXPECT_THAT(page, Not(HasSubstr("<b>")));
    EXPECT_THAT(page, HasSubstr("&lt;img src=x onerror=alert(1)&gt;&amp;&quot;&apos;.mov"));
}

TEST(ActivityPage, DoesNotTakeANameForAPlaceholder) {
    EXPECT_THAT(activityPage(activity("/{script}.mov")).body, HasSubstr("{script}.mov"));
}

TEST(ActivityPage, ForbidsEverythingButItsOwnStyleScriptAndData) {
    const Page page = activityPage(activity());
    const std::string policy = headerOf(page, "Content-Security-Policy");
    EXPECT_THAT(policy, AllOf(HasSubstr("default-src 'none'"), HasSubstr("connect-src 'self'"),
                              HasSubstr("frame-ancestors 'none'"), HasSubstr("base-uri 'none'"),
                              HasSubstr("form-action 'none'"), HasSubstr("script-src 'sha256-"),
                              HasSubstr("style-src 'sha256-"), Not(HasSubstr("unsafe"))));
}

TEST(ActivityPage, IsNotStoredSniffedOrReferredFrom) {
    for (const Page& page : {activityPage(activity()), activityData(activity())}) {
        EXPECT_EQ(headerOf(page, "Cache-Control"), "no-store");
        EXPECT_EQ(headerOf(page, "X-Content-Type-Options"), "nosniff");
        EXPECT_EQ(headerOf(page, "Referrer-Policy"), "no-referrer");
        EXPECT_EQ(headerOf(page, "Cross-Origin-Resource-Policy"), "same-origin");
    }
}

TEST(ActivityPage, LoadsNothing) {
    const std::string page = activityPage(activity()).body;
    for (const char* reference : {"src=", "href=", "url(", "@import", "http:", "https:", "innerHTML", "eval("}) {
        EXPECT_THAT(page, Not(HasSubstr(reference))) << reference;
    }
}

}  // namespace
}  // namespace krv::server
