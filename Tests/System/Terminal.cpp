#include "Terminal.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include "ChildProcess.h"
#include "WaitUntil.h"

namespace krv::test {

Terminal::Terminal(int columns, int rows) {
    // A shell of which nothing depends on the files of this user.
    tmux({"new-session", "-d", "-x", std::to_string(columns), "-y", std::to_string(rows),
          "env PS1='$ ' LC_ALL=C.UTF-8 bash --norc --noprofile -i"});
    tmux({"set-option", "-g", "status", "off"});
    resize(columns, rows);
    waitFor("$");
}

Terminal::~Terminal() {
    try {
        tmux({"kill-server"});
    } catch (const std::exception&) {
        return;  // it has ended already
    }
}

std::string Terminal::tmux(std::vector<std::string> arguments) const {
    std::vector<std::string> all{"tmux", "-u", "-f", "/dev/null", "-S", (folder_.path() / "socket").string()};
    all.insert(all.end(), arguments.begin(), arguments.end());
    ChildProcess process(std::move(all));
    std::string text = process.readAll();
    if (process.wait() != 0) {
        throw std::runtime_error("tmux failed");
    }
    return text;
}

void Terminal::run(const std::string& command) {
    tmux({"send-keys", "-l", command});
    press("Enter");
}

void Terminal::clear() {
    run("clear");
    waitUntilScreen([](const std::vector<std::string>& screen) {
        return screen.at(0) == "$" &&
               std::all_of(screen.begin() + 1, screen.end(), [](const std::string& line) { return line.empty(); });
    });
}

void Terminal::press(const std::string& key) {
    tmux({"send-keys", key});
}

void Terminal::resize(int columns, int rows) {
    tmux({"resize-window", "-x", std::to_string(columns), "-y", std::to_string(rows)});
}

std::vector<std::string> Terminal::lines(bool withColours) const {
    std::vector<std::string> arguments{"capture-pane", "-p"};
    if (withColours) {
        arguments.emplace_back("-e");
    }
    std::istringstream text(tmux(std::move(arguments)));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) {
        line.erase(line.find_last_not_of(' ') + 1);
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string>
Terminal::waitUntilScreen(const std::function<bool(const std::vector<std::string>&)>& shows) const {
    std::vector<std::string> now;
    waitUntil([&] {
        now = lines();
        return shows(now);
    });
    return now;
}

std::vector<std::string> Terminal::waitFor(const std::string& text) const {
    return waitUntilScreen([&](const std::vector<std::string>& screen) {
        return std::any_of(screen.begin(), screen.end(),
                           [&](const std::string& line) { return line.find(text) != std::string::npos; });
    });
}

}  // namespace krv::test
