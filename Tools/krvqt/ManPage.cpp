#include "ManPage.h"

#include <string_view>

#include <fmt/format.h>

#include "ArgumentCheck.h"
#include "Help.h"

namespace krvqt {
namespace {

/// Returns a text as roff reads it.
std::string escaped(std::string_view text) {
    std::string roff;
    for (const char c : text) {
        switch (c) {
        case '\\':
            roff += "\\e";
            break;
        case '-':
            roff += "\\-";
            break;
        case '\'':
            roff += "\\(aq";
            break;
        default:
            roff += c;
        }
    }
    return roff.starts_with('.') ? "\\&" + roff : roff;
}

std::string sentence(std::string text) {
    // A term, such as key=value, stays as it is.
    if (text.find_first_of("= ") < text.size() && text[text.find_first_of("= ")] == ' ') {
        text.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(text.front())));
    }
    return escaped(text) + (text.ends_with('.') ? "\n" : ".\n");
}

/// Returns a paragraph for each line.
std::string paragraphs(std::string_view text) {
    std::string roff;
    while (!text.empty()) {
        const auto end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        roff += line.empty() ? "" : fmt::format(".PP\n{}\n", escaped(line));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return roff;
}

std::string options(const CLI::App& description) {
    std::string roff;
    for (const CLI::Option* const option : description.get_options()) {
        const bool isHelpOfCommand = description.get_parent() && option->check_lname("help");
        if (option->nonpositional() && !isHelpOfCommand) {
            roff += fmt::format(".TP\n.B {}\n{}", escaped(syntaxOf(*option)), sentence(option->get_description()));
        }
    }
    return roff;
}

std::string commandSection(const CLI::App& command) {
    std::string roff = fmt::format(".SS {}\n", escaped(command.get_name()));
    auto forms = formsOf(command);
    if (forms.empty()) {
        forms.emplace_back();
    }
    roff += ".nf\n";
    for (const std::string& form : forms) {
        roff += fmt::format("krvqt {} [OPTIONS]{}{}\n", escaped(command.get_name()), form.empty() ? "" : " ",
                            escaped(form));
    }
    return roff + ".fi\n.PP\n" + sentence(command.get_description()) + options(command) +
           paragraphs(command.get_footer());
}

}  // namespace

std::string manPage(const CLI::App& line) {
    std::string version = line.version();
    std::string page = fmt::format(R"(.TH KRVQT 1 "" "{}" "User Commands"
.SH NAME
krvqt \- convert and inspect movies through the media server
.SH SYNOPSIS
.B krvqt
.I COMMAND
.RI [ OPTIONS ]
.RI [ FILE ...]
.br
.B krvqt help
.RI [ COMMAND ]
.SH DESCRIPTION
{}The work is done by a media server, which
.B krvqt
starts if none is running, and which serves all applications of a user.
.PP
Results are printed on standard output, everything else on standard error.
.SH COMMANDS
)",
                                   escaped(version), sentence(line.get_description()));
    for (const CLI::App* const command : commandsOf(line)) {
        page += commandSection(*command);
    }
    page += ".SH OPTIONS\nThese options belong to every command.\n" + options(line) + ".SH EXIT STATUS\n";
    for (const auto& [status, meaning] : exitStatuses()) {
        page += fmt::format(".TP\n.B {}\n{}", status, sentence(std::string(meaning)));
    }
    page += R"(.SH EXAMPLES
.nf
krvqt convert holiday.mov holiday.mp4
krvqt convert *.mov \-\-to converted \-\-type hevc
krvqt convert talk.mkv part.mp4 \-\-start 1:30 \-\-end 12:05.5
krvqt merge \-o week.mp4 monday.mov tuesday.mov
krvqt info \-\-json holiday.mov
.fi
)";
    return page;
}

}  // namespace krvqt
