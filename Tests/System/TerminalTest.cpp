// krvqt in a real terminal, as a person sees it.
#include "Terminal.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/mount.h>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/Platform/ProcessTable.h>

#include "SystemFixture.h"

namespace krv::test {
namespace {

using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;
using Lines = std::vector<std::string>;

/// Returns the lines of a screen that show a bar, even if it is cut off at the edge.
Lines barsIn(const Lines& screen) {
    Lines bars;
    std::copy_if(screen.begin(), screen.end(), std::back_inserter(bars),
                 [](const std::string& line) { return line.find(" %") != std::string::npos; });
    return bars;
}

bool isBusy(const std::string& bar) {
    return bar.find('#') != std::string::npos && bar.find('.') != std::string::npos;
}

/// Returns how wide the bars of a batch are.
std::size_t widthOfBar(int columns) {
    return static_cast<std::size_t>(std::clamp(columns / 3, 10, 30));
}

class InTerminal : public SystemFixture {
protected:
    /// A conversion that takes about a minute, so that there is time to look.
    std::string conversion(const std::string& destination = "out.mp4") const {
        return fmt::format("{} convert {} '{}' --type HEVC; echo status=$?", KRV_KRVQT, media("longer.mov"),
                           out(destination));
    }
    std::string list(const Lines& destinations, const char* source = "longer.mov") const {
        std::string text;
        for (const std::string& destination : destinations) {
            text += nlohmann::json{{"command", "convert"},
                                   {"source", media(source)},
                                   {"destination", out(destination)},
                                   {"type", "HEVC"}}
                        .dump() +
                    "\n";
        }
        return folder.write("list.jsonl", text);
    }
    std::string batch(const Lines& destinations, const char* source = "longer.mov") const {
        return fmt::format("{} batch {} --jobs 2; echo status=$?", KRV_KRVQT, list(destinations, source));
    }
    static bool isRunning() {
        const auto processes = ProcessTable::system().processes();
        return std::any_of(processes.begin(), processes.end(),
                           [](const ProcessInfo& each) { return each.name == "krvqt"; });
    }
    /// Waits until the prompt is back after this status.
    static Lines end(const Terminal& terminal, int status) {
        return terminal.waitFor(fmt::format("status={}", status));
    }
    static void waitForBars(const Terminal& terminal, std::size_t count) {
        terminal.waitUntilScreen([&](const Lines& screen) { return barsIn(screen).size() == count; });
    }
    /// Waits until the bar of a conversion has moved.
    static void waitForMovement(const Terminal& terminal) {
        std::string first;
        terminal.waitUntilScreen([&](const Lines& screen) {
            const Lines bars = barsIn(screen);
            if (bars.empty()) {
                return false;
            }
            if (first.empty()) {
                first = bars.back();
            }
            return bars.back() != first;
        });
    }
};

TEST_F(InTerminal, ABarFillsTheLineAndMoves) {
    Terminal terminal(80, 24);
    terminal.run(conversion());
    const Lines screen = terminal.waitUntilScreen([](const Lines& lines) {
        const Lines bars = barsIn(lines);
        return bars.size() == 1 && isBusy(bars[0]) && bars[0].find("left") != std::string::npos;
    });
    EXPECT_LT(barsIn(screen).at(0).size(), 80U);
    EXPECT_THAT(barsIn(screen).at(0), testing::StartsWith("["));
    waitForMovement(terminal);
    terminal.press("C-c");
    end(terminal, 130);
}

TEST_F(InTerminal, FitsFortyColumnsAndFollowsTheWindow) {
    Terminal terminal(40, 24);
    terminal.run(conversion());
    Lines screen = terminal.waitUntilScreen([](const Lines& lines) {
        return std::any_of(lines.begin(), lines.end(),
                           [](const std::string& line) { return line.find(" elapsed") != std::string::npos; });
    });
    EXPECT_THAT(barsIn(screen), testing::SizeIs(1));
    terminal.resize(80, 24);
    terminal.waitUntilScreen([](const Lines& lines) {
        const Lines bars = barsIn(lines);
        return !bars.empty() && bars.back().size() > 40;
    });
    terminal.resize(40, 24);
    waitForMovement(terminal);
    terminal.press("C-c");
    end(terminal, 130);
}

TEST_F(InTerminal, ABatchShowsSeveralBarsAndOneForTheWhole) {
    Terminal terminal(80, 24);
    terminal.run(batch({"one.mp4", "two.mp4", "three.mp4"}));
    const Lines screen = terminal.waitUntilScreen([](const Lines& lines) {
        const Lines bars = barsIn(lines);
        return bars.size() == 3 && std::all_of(bars.begin(), bars.end(), isBusy) &&
               bars[0].find("  0 %") == std::string::npos;
    });
    const Lines bars = barsIn(screen);
    EXPECT_THAT(bars[0], HasSubstr("one.mp4"));
    EXPECT_THAT(bars[1], HasSubstr("two.mp4"));
    EXPECT_THAT(bars[2], HasSubstr("0 of 3 jobs done"));
    waitForMovement(terminal);
    terminal.press("C-c");
    const Lines last = end(terminal, 130);
    EXPECT_THAT(barsIn(last), IsEmpty());
    EXPECT_THAT(last, Contains(HasSubstr("0 of 3 jobs done, 3 left")));
}

TEST_F(InTerminal, ABatchFollowsTheWindow) {
    Terminal terminal(80, 24);
    terminal.run(batch({"one.mp4", "two.mp4"}));
    waitForBars(terminal, 3);
    for (const int columns : {40, 100, 30, 80}) {
        terminal.resize(columns, 24);
        // tmux tells programs of a new size some time after it has changed the screen. What they draw in between is
        // wrapped, and may stay above the bars.
        terminal.waitUntilScreen([&](const Lines& lines) {
            const Lines bars = barsIn(lines);
            return bars.size() >= 3 &&
                   std::all_of(bars.end() - 3, bars.end(),
                               [&](const std::string& bar) { return bar.find(']') == widthOfBar(columns) + 1; }) &&
                   bars[bars.size() - 3].find("one") != std::string::npos &&
                   bars[bars.size() - 2].find("two") != std::string::npos &&
                   bars[bars.size() - 1].find("0 of") != std::string::npos;
        });
    }
    terminal.press("C-c");
    end(terminal, 130);
}

TEST_F(InTerminal, ABatchPrintsResultsAndFailuresAboveItsBars) {
    Terminal terminal(100, 40);
    const std::string jobs = list({"a.mp4", "b.mp4"}, "plain.mov");
    terminal.run(fmt::format("echo '{}' >> {}; {} batch {} --jobs 1; echo status=$?",
                             R"({"command":"info","source":"/nonexistent.mov"})", jobs, KRV_KRVQT, jobs));
    const Lines screen = end(terminal, 1);
    EXPECT_THAT(screen, Contains(out("a.mp4")));
    EXPECT_THAT(screen, Contains(out("b.mp4")));
    EXPECT_THAT(screen, Contains(HasSubstr("krvqt: line 3: Cannot describe nonexistent.mov")));
    EXPECT_THAT(screen, Contains(HasSubstr("2 of 3 jobs done, 1 failed")));
    EXPECT_THAT(screen, Each(Not(HasSubstr("[#"))));
}

TEST_F(InTerminal, AnInterruptLeavesNothing) {
    Terminal terminal(80, 24);
    for (const std::string& command : {conversion(), batch({"one.mp4", "two.mp4", "three.mp4"})}) {
        terminal.clear();
        terminal.run(command);
        terminal.waitUntilScreen([](const Lines& lines) {
            const Lines bars = barsIn(lines);
            return !bars.empty() && isBusy(bars[0]);
        });
        terminal.press("C-c");
        end(terminal, 130);
        EXPECT_THAT(filesInOut(), IsEmpty()) << command;
        EXPECT_FALSE(isRunning()) << command;
    }
}

TEST_F(InTerminal, GoesOnAfterItWasStopped) {
    Terminal terminal(80, 24);
    for (const std::string& command : {conversion(), batch({"one.mp4", "two.mp4"})}) {
        terminal.clear();
        terminal.run(command);
        terminal.waitUntilScreen([](const Lines& lines) { return !barsIn(lines).empty() && isBusy(barsIn(lines)[0]); });
        terminal.press("C-z");
        terminal.waitFor("Stopped");
        terminal.clear();
        terminal.run("fg");
        waitForMovement(terminal);
        terminal.press("C-c");
        // The shell runs what stands behind a stopped command at once, so its status has been printed.
        terminal.waitUntilScreen([](const Lines&) { return !isRunning(); });
        EXPECT_THAT(filesInOut(), IsEmpty()) << command;
    }
}

TEST_F(InTerminal, APipeGetsLinesAndNoControlSequences) {
    Terminal terminal(80, 40);
    terminal.run(
        fmt::format("{} convert {} {} 2>&1 | cat -v; echo status=$?", KRV_KRVQT, media("plain.mov"), out("a.mp4")));
    Lines screen = end(terminal, 0);
    EXPECT_THAT(screen, Contains(testing::StartsWith("100 %")));
    EXPECT_THAT(screen, Each(Not(testing::AnyOf(HasSubstr("^["), HasSubstr("^M"), HasSubstr("[#")))));
    terminal.clear();
    terminal.run(fmt::format("{} batch {} 2>&1 | cat -v; echo ended=$?", KRV_KRVQT, list({"b.mp4"}, "plain.mov")));
    screen = terminal.waitFor("ended=0");
    EXPECT_THAT(screen, Contains(HasSubstr("1 of 1 jobs done")));
    EXPECT_THAT(screen, Each(Not(testing::AnyOf(HasSubstr("^["), HasSubstr("^M"), HasSubstr("[#")))));
}

TEST_F(InTerminal, ASimpleTerminalGetsLines) {
    Terminal terminal(80, 40);
    terminal.run("export TERM=dumb");
    terminal.run(batch({"a.mp4"}, "plain.mov"));
    const Lines screen = end(terminal, 0);
    EXPECT_THAT(screen, Contains(out("a.mp4")));
    EXPECT_THAT(barsIn(screen), IsEmpty());
}

TEST_F(InTerminal, UsesNoColours) {
    Terminal terminal(80, 24);
    for (const char* setting : {"", "NO_COLOR=1 "}) {
        terminal.clear();
        terminal.run(setting + batch({"one.mp4", "two.mp4"}));
        waitForBars(terminal, 3);
        EXPECT_THAT(terminal.lines(true), Each(Not(HasSubstr("\x1b[")))) << setting;
        terminal.press("C-c");
        end(terminal, 130);
    }
}

TEST_F(InTerminal, NamesDoNotControlTheTerminal) {
    Terminal terminal(200, 40);
    const std::string red = "\x1b[31mred";
    const nlohmann::json job{{"command", "mux"}, {"source", red + ".mov"}, {"destination", out(red + ".mp4")}};
    const std::string wrong = folder.write("wrong.jsonl", job.dump() + "\n" + job.dump() + "\n");
    terminal.run(fmt::format("{} batch {}; echo status=$?", KRV_KRVQT, wrong));
    end(terminal, 2);
    EXPECT_THAT(terminal.lines(true), Each(Not(HasSubstr("\x1b["))));
    terminal.clear();
    terminal.run(fmt::format("{} batch {}; echo status=$?", KRV_KRVQT, folder.write("right.jsonl", job.dump())));
    end(terminal, 1);
    EXPECT_THAT(terminal.lines(true), Each(Not(HasSubstr("\x1b["))));
}

TEST_F(InTerminal, WideNamesFit) {
    Terminal terminal(60, 24);
    std::string name;
    for (int i = 0; i < 60; ++i) {
        name += "\u6620";
    }
    terminal.clear();
    terminal.run(batch({name + ".mp4", "\u00e4\u00f6\u00fc.mp4"}));
    const Lines screen = terminal.waitUntilScreen([](const Lines& lines) {
        const Lines bars = barsIn(lines);
        return bars.size() == 3 && std::all_of(bars.begin(), bars.end(), isBusy);
    });
    EXPECT_THAT(barsIn(screen)[0], testing::AllOf(HasSubstr("\u6620\u6620"), testing::EndsWith("...")));
    EXPECT_THAT(barsIn(screen)[1], HasSubstr("\u00e4\u00f6\u00fc.mp4"));
    terminal.press("C-c");
    end(terminal, 130);
}

TEST_F(InTerminal, ANameThatIsNotUTF8IsExplained) {
    Terminal terminal(100, 24);
    const std::string name = out("a\xff.mov");
    std::filesystem::copy_file(media("plain.mov"), name);
    terminal.run(
        fmt::format("{} convert {}/a$'\\xff'.mov {}; echo status=$?", KRV_KRVQT, outFolder().string(), out("b.mp4")));
    const Lines screen = end(terminal, 2);
    EXPECT_THAT(screen, Contains(HasSubstr("UTF-8")));
    EXPECT_FALSE(std::filesystem::exists(out("b.mp4")));
}

TEST_F(InTerminal, WorksWithoutFoldersOfItsOwn) {
    const std::string home = (folder.path() / "home").string();
    std::filesystem::create_directory(home);
    ASSERT_EQ(::mount("none", home.c_str(), "tmpfs", MS_RDONLY, nullptr), 0);
    Terminal terminal(100, 40);
    int number = 0;
    for (const std::string& surroundings :
         {std::string("env -u HOME"), "env -u XDG_RUNTIME_DIR -u XDG_STATE_HOME HOME=" + home,
          std::string("env -u XDG_RUNTIME_DIR -u HOME -u XDG_STATE_HOME"),
          std::string("env -i TERM=screen PATH=/usr/bin:/bin")}) {
        terminal.clear();
        terminal.run(fmt::format("{} {} convert {} {}; echo status=$?", surroundings, KRV_KRVQT, media("plain.mov"),
                                 out(fmt::format("{}.mp4", ++number))));
        EXPECT_THAT(end(terminal, 0), Contains(HasSubstr("krvqt: done"))) << surroundings;
    }
    ::umount2(home.c_str(), MNT_DETACH);
    EXPECT_THAT(filesInOut(), UnorderedElementsAre("1.mp4", "2.mp4", "3.mp4", "4.mp4"));
}

}  // namespace
}  // namespace krv::test
