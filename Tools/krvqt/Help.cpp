#include "Help.h"

#include <algorithm>

#include <fmt/format.h>

#include "ArgumentCheck.h"
#include "ExitStatus.h"

namespace krvqt {
namespace {

constexpr std::size_t kWidth = 80;
constexpr std::size_t kIndent = 2;
constexpr std::size_t kColumn = 28;

/// Returns a term and its explanation in two columns.
std::string entry(const std::string& term, std::string_view explanation) {
    std::string text = std::string(kIndent, ' ') + term;
    const std::string lines = wrapped(explanation, kColumn, kWidth);
    if (text.size() + kIndent > kColumn) {
        return text + '\n' + lines;
    }
    text.resize(kColumn, ' ');
    return text + lines.substr(kColumn);
}

std::string optionEntries(const CLI::App& description) {
    std::string text;
    for (const CLI::Option* const option : description.get_options()) {
        if (option->nonpositional()) {
            text += entry(syntaxOf(*option), option->get_description());
        }
    }
    return text;
}

std::string usageLines(const CLI::App& description) {
    const CLI::App* const parent = description.get_parent();
    if (!parent) {
        return "Usage: krvqt COMMAND [OPTIONS] ...\n       krvqt help COMMAND\n";
    }
    std::string text;
    auto forms = formsOf(description);
    if (forms.empty()) {
        forms.emplace_back();
    }
    for (const std::string& form : forms) {
        text += fmt::format("{} krvqt {} [OPTIONS]{}{}\n", text.empty() ? "Usage:" : "      ", description.get_name(),
                            form.empty() ? "" : " ", form);
    }
    return text;
}

}  // namespace

std::string wrapped(std::string_view paragraph, std::size_t indent, std::size_t width) {
    std::string text;
    while (!paragraph.empty()) {
        const std::size_t room = width - indent;
        std::size_t end = std::min(paragraph.find('\n'), paragraph.size());
        if (end > room) {
            const auto space = paragraph.rfind(' ', room);
            end = space == std::string_view::npos ? std::min(paragraph.find(' '), end) : space;
        }
        text += std::string(end == 0 ? 0 : indent, ' ');
        text += paragraph.substr(0, end);
        text += '\n';
        paragraph.remove_prefix(std::min(end + 1, paragraph.size()));
    }
    return text;
}

std::vector<std::string> formsOf(const CLI::App& command) {
    std::vector<std::string> forms;
    for (const CLI::Option* const option : command.get_options()) {
        if (!option->get_positional()) {
            continue;
        }
        std::string alternatives = option->get_type_name();
        if (!forms.empty()) {  // each further argument follows the first
            forms.front() += " " + alternatives;
            continue;
        }
        for (bool more = true; more;) {
            const auto bar = alternatives.find('|');
            more = bar != std::string::npos;
            forms.push_back(alternatives.substr(0, bar));
            alternatives.erase(0, more ? bar + 1 : bar);
        }
    }
    return forms;
}

std::string syntaxOf(const CLI::Option& option) {
    std::string text;
    for (const std::string& name : option.get_snames()) {
        text += fmt::format("{}-{}", text.empty() ? "" : ", ", name);
    }
    for (const std::string& name : option.get_lnames()) {
        text += fmt::format("{}--{}", text.empty() ? "" : ", ", name);
    }
    return option.get_items_expected_max() > 0 ? text + " " + option.get_type_name() : text;
}

const std::vector<ExitStatusText>& exitStatuses() {
    static const std::vector<ExitStatusText> statuses{
        {kDone, "done"},
        {kFailed, "the operation failed, or its results could not be written; of several files, at least one failed"},
        {kUsage, "wrong usage; no work was started"},
        {kNoServer, "the media server could not be reached or started"},
        {kCancelled, "cancelled, for example with Ctrl-C"}};
    return statuses;
}

std::string helpText(const CLI::App& description) {
    const CLI::App* const parent = description.get_parent();
    std::string title = description.get_description();
    if (parent && !title.empty()) {
        title.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(title.front())));
        title += '.';
    }
    std::string text = usageLines(description) + '\n' + wrapped(title, 0, kWidth);
    if (!parent) {
        text += "\nCommands:\n";
        for (const CLI::App* const command : commandsOf(description)) {
            text += entry(command->get_name(), command->get_description());
        }
    }
    if (const std::string options = optionEntries(description); !options.empty()) {
        text += "\nOptions:\n" + options;
    }
    if (!description.get_footer().empty()) {
        text += '\n' + wrapped(description.get_footer(), 0, kWidth);
    }
    if (parent) {
        return text + "\n'krvqt --help' describes the options of every command and the exit statuses.\n";
    }
    text += "\nExit status:\n";
    for (const auto& [status, meaning] : exitStatuses()) {
        text += entry(std::to_string(status), meaning);
    }
    return text;
}

}  // namespace krvqt
