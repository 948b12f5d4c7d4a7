// The activity page in a real browser, while real conversions run.
#include <algorithm>
#include <csignal>
#include <filesystem>
#include <string>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "Browser.h"
#include "SystemFixture.h"

namespace krv::test {
namespace {

using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

class ActivityPage : public SystemFixture {
protected:
    /// Starts a conversion that takes minutes, and returns when it runs.
    std::unique_ptr<ChildProcess> conversion(const std::string& source, const std::string& destination) {
        auto process = std::make_unique<ChildProcess>(
            std::vector<std::string>{"sh", "-c", "exec \"$@\" 2>&1", "sh", KRV_KRVQT, "convert", source,
                                     out(destination), "--type", "HEVC", "--video-settings", "preset=veryslow"});
        while (const auto line = process->readLine()) {
            if (line->find(" %") != std::string::npos) {
                return process;
            }
        }
        ADD_FAILURE() << "it exited before it ran";
        return process;
    }
    /// Returns what krvqt says about the page of the running server.
    static std::string url() {
        ChildProcess process({KRV_KRVQT, "activity"});
        const std::string line = process.readLine().value_or("");
        EXPECT_EQ(process.wait(), 0);
        return line;
    }
    static int run(const std::vector<std::string>& arguments) {
        std::vector<std::string> all{"sh", "-c", "exec \"$@\" >/dev/null 2>&1", "sh", KRV_KRVQT};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return ChildProcess(all).wait();
    }
    static std::string text(Browser& browser) { return browser.evaluate("document.body.innerText"); }

    // The first process of a test launches the server, which all others find.
    static constexpr const char* kBar = "document.querySelector('#operations progress')";
};

TEST_F(ActivityPage, ShowsAConversionWhoseBarMoves) {
    const auto process = conversion(media("longer.mov"), "holiday.mp4");
    Browser browser;
    browser.open(url());
    browser.waitUntilTrue(fmt::format("{} && {}.value > 0", kBar, kBar));
    EXPECT_THAT(text(browser), HasSubstr("longer.mov → holiday.mp4"));
    EXPECT_THAT(text(browser), HasSubstr(fmt::format("krvqt ({})", process->pid())));
    EXPECT_EQ(browser.evaluate(fmt::format("{}.getAttribute('aria-label')", kBar)), "Convert longer.mov");
    // The same element moves; it is not replaced.
    browser.evaluate(fmt::format("window.bar = {}; window.before = bar.value", kBar));
    browser.waitUntilTrue("bar.value > before && bar.isConnected");
    browser.waitUntilTrue("document.querySelector('#operations .time').textContent.includes(' left')");
    browser.waitUntilTrue("document.querySelector('#processes').textContent.includes('Convert longer.mov')");
    process->signal(SIGINT);
    browser.waitUntilTrue("document.querySelector('#operations').childElementCount == 0");
    EXPECT_THAT(text(browser), HasSubstr("idle"));
    EXPECT_THAT(browser.complaints(), IsEmpty());
}

TEST_F(ActivityPage, ShowsErrorsAndNamesAsText) {
    const std::string name = "<img src=x onerror=alert(1)> & <b>.mov";
    std::filesystem::copy_file(media("longer.mov"), folder.path() / name);
    const std::string bad = folder.write("<script>alert(2)<%2Fscript>.mov", "not a movie");
    const auto process = conversion(folder.path() / name, "<i>.mp4");
    Browser browser;
    browser.open(url());
    browser.waitUntilTrue(kBar);
    EXPECT_THAT(text(browser), HasSubstr(name + " → <i>.mp4"));
    EXPECT_EQ(run({"info", bad}), 1);
    browser.waitUntilTrue("document.querySelector('#errors').childElementCount == 1");
    EXPECT_THAT(text(browser), HasSubstr("Cannot describe <script>alert(2)<%2Fscript>.mov"));
    // The page as it is sent contains them as text, too.
    browser.open(url());
    EXPECT_THAT(text(browser), HasSubstr(name + " → <i>.mp4"));
    EXPECT_THAT(text(browser), HasSubstr("Cannot describe <script>alert(2)<%2Fscript>.mov"));
    EXPECT_EQ(browser.evaluate("document.querySelectorAll('img, b, i, script').length"), 1);
    EXPECT_THAT(browser.complaints(), IsEmpty());
}

TEST_F(ActivityPage, ShowsTheMomentWithoutScripts) {
    const auto process = conversion(media("longer.mov"), "holiday.mp4");
    Browser browser;
    browser.disableScripts();
    browser.open(url());
    const auto document = browser.call("DOM.getDocument")["root"]["nodeId"];
    const std::string html = browser.call("DOM.getOuterHTML", {{"nodeId", document}})["outerHTML"];
    EXPECT_THAT(html, HasSubstr("<bdi class=\"name\">longer.mov</bdi> → <bdi>holiday.mp4</bdi>"));
    EXPECT_THAT(html, HasSubstr("Reload the page to see the present one."));
    EXPECT_THAT(browser.requests(), testing::SizeIs(1));
}

/// Returns the lowest contrast of all texts with their backgrounds, as defined by the accessibility guidelines.
constexpr const char* kLowestContrast = R"((() => {
    const channels = (colour) => colour.match(/[\d.]+/g).map(Number);
    const luminance = ([r, g, b]) => [r, g, b].map((each) => each / 255)
        .map((each) => each <= 0.04045 ? each / 12.92 : ((each + 0.055) / 1.055) ** 2.4)
        .reduce((sum, each, index) => sum + each * [0.2126, 0.7152, 0.0722][index], 0);
    const background = (element) => {
        const colour = channels(getComputedStyle(element).backgroundColor);
        return colour.length === 4 && colour[3] === 0 ? background(element.parentElement) : colour;
    };
    const ratio = (element) => {
        const both = [luminance(channels(getComputedStyle(element).color)), luminance(background(element))];
        return (Math.max(...both) + 0.05) / (Math.min(...both) + 0.05);
    };
    const hasText = (element) => [...element.childNodes].some((each) => each.nodeType === 3 && each.data.trim());
    const shown = [...document.body.querySelectorAll('*')].filter((each) => hasText(each) && each.tagName !== 'SCRIPT');
    return Math.min(...shown.map(ratio));
})())";

TEST_F(ActivityPage, HasALightAndADarkThemeThatAreLegible) {
    constexpr double kLegible = 4.5;
    const auto process = conversion(media("longer.mov"), "holiday.mp4");
    EXPECT_EQ(run({"info", folder.write("bad.mov", "not a movie")}), 1);
    Browser browser;
    const auto brightness = [&] {
        return browser
            .evaluate("getComputedStyle(document.body).backgroundColor.match(/\\d+/g).map(Number)"
                      ".reduce((sum, each) => sum + each) / 765")
            .get<double>();
    };
    browser.prefer("light");
    browser.open(url());
    browser.waitUntilTrue(kBar);
    EXPECT_GT(brightness(), 0.9);
    EXPECT_GE(browser.evaluate(kLowestContrast).get<double>(), kLegible);
    browser.prefer("dark");
    EXPECT_LT(brightness(), 0.15);
    EXPECT_GE(browser.evaluate(kLowestContrast).get<double>(), kLegible);
}

TEST_F(ActivityPage, FitsANarrowWindow) {
    constexpr int kNarrow = 360;
    const std::string name = std::string(200, 'n') + ".mov";
    std::filesystem::copy_file(media("longer.mov"), folder.path() / name);
    const auto process = conversion(folder.path() / name, std::string(200, 'm') + ".mp4");
    EXPECT_EQ(run({"info", folder.write(std::string(200, 'b') + ".mov", "not a movie")}), 1);
    Browser browser;
    browser.setWidth(kNarrow);
    browser.open(url());
    browser.waitUntilTrue(kBar);
    EXPECT_LE(browser.evaluate("document.documentElement.scrollWidth").get<int>(), kNarrow);
    EXPECT_GT(browser.evaluate(fmt::format("{}.offsetWidth", kBar)).get<int>(), kNarrow / 2);
}

TEST_F(ActivityPage, AsksNobodyButTheServer) {
    const auto process = conversion(media("longer.mov"), "holiday.mp4");
    Browser browser;
    const std::string page = url();
    browser.open(page);
    browser.waitUntilTrue(fmt::format("{} && {}.value > 0", kBar, kBar));
    EXPECT_THAT(browser.requests(), Each(StartsWith(page)));  // /activity and /activity.json
    // Nor could it: the policy forbids everything else, and text that would become elements.
    EXPECT_THAT(browser.evaluate("fetch('http://127.0.0.1:1/').then(() => 'sent', (error) => error.name)"),
                "TypeError");
    EXPECT_THAT(
        browser.evaluate("(() => { try { document.body.innerHTML = '<b>'; } catch (error) { return error.name; } })()"),
        "TypeError");
    EXPECT_THAT(browser.requests(), Each(StartsWith(page)));
}

TEST_F(ActivityPage, IsNotShownInOtherPages) {
    const auto process = conversion(media("longer.mov"), "holiday.mp4");
    const std::string page = url();
    const std::string other = folder.write(
        "other.html",
        fmt::format("<iframe src='{0}'></iframe><img src='{0}.json'><script src='{0}.json'></script>", page));
    Browser browser;
    browser.open("file://" + other);
    EXPECT_EQ(browser.statusOf(page), 403);
    EXPECT_EQ(browser.statusOf(page + ".json"), 403);
    EXPECT_EQ(browser.evaluate("fetch('" + page + ".json').then(() => 'read', () => 'refused')"), "refused");
}

TEST_F(ActivityPage, SaysThatTheServerIsGoneAndFindsTheNextOne) {
    const auto process = conversion(media("longer.mov"), "holiday.mp4");
    Browser browser;
    browser.open(url());
    browser.waitUntilTrue(kBar);
    process->signal(SIGINT);
    EXPECT_EQ(process->wait(), 130);
    const Serving old = waitForServer();
    killServer(old.pid);
    browser.waitUntilTrue("document.querySelector('#notice').textContent.includes('does not respond')");
    EXPECT_EQ(run({"info", media("plain.mov")}), 0);
    const Serving next = waitForServer([&](const Serving& each) { return each.pid != old.pid; });
    ASSERT_EQ(next.port, old.port);
    browser.waitUntilTrue(
        fmt::format("document.querySelector('#server').textContent.includes('process {}')", next.pid));
    EXPECT_EQ(browser.evaluate("document.querySelector('#notice').textContent"), "");
}

TEST_F(ActivityPage, IsNotLookedForWithoutAServer) {
    EXPECT_EQ(run({"activity"}), 3);
    EXPECT_THAT(servers(), IsEmpty());
}

TEST_F(ActivityPage, HasAnAddressThatProgramsCanReadAndTheDesktopCanOpen) {
    ASSERT_EQ(run({"info", media("plain.mov")}), 0);
    const Serving server = waitForServer();
    ChildProcess json({KRV_KRVQT, "activity", "--json"});
    const auto object = nlohmann::json::parse(json.readAll());
    EXPECT_EQ(object["url"], fmt::format("http://localhost:{}/activity", server.port));
    EXPECT_EQ(object["pid"], server.pid);
    const std::string opener =
        folder.write("bin/xdg-open", "#!/bin/sh\necho \"$1\" >\"$0.part\"; mv \"$0.part\" \"$0.opened\"\n");
    std::filesystem::permissions(opener, std::filesystem::perms::owner_all);
    const std::string path = (folder.path() / "bin").string();
    ChildProcess open({"env", "PATH=" + path + ":/usr/bin:/bin", KRV_KRVQT, "activity", "--open"});
    EXPECT_EQ(open.wait(), 0);
    waitUntil([&] { return std::filesystem::exists(opener + ".opened"); });
    ChildProcess missing({"env", "PATH=" + path + "/none", KRV_KRVQT, "activity", "--open"});
    EXPECT_EQ(missing.wait(), 1);
}

}  // namespace
}  // namespace krv::test
