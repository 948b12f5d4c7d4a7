#include "Completions.h"

#include <vector>

#include <fmt/format.h>

#include "ArgumentCheck.h"
#include "ValueKind.h"

namespace krvqt {
namespace {

bool takesValue(const CLI::Option& option) {
    return option.get_items_expected_max() > 0;
}

/// Returns the options of the command line or of one command, without positional arguments.
std::vector<const CLI::Option*> optionsOf(const CLI::App& description) {
    std::vector<const CLI::Option*> options;
    for (const CLI::Option* const option : description.get_options()) {
        if (option->nonpositional()) {
            options.push_back(option);
        }
    }
    return options;
}

/// Returns "-o" and "--output".
std::vector<std::string> namesOf(const CLI::Option& option) {
    std::vector<std::string> names;
    for (const std::string& name : option.get_snames()) {
        names.push_back("-" + name);
    }
    for (const std::string& name : option.get_lnames()) {
        names.push_back("--" + name);
    }
    return names;
}

std::vector<std::string> allNames(const CLI::App& description) {
    std::vector<std::string> names;
    for (const CLI::Option* const option : optionsOf(description)) {
        const auto more = namesOf(*option);
        names.insert(names.end(), more.begin(), more.end());
    }
    return names;
}

/// Returns the names of the options that take a value.
std::vector<std::string> namesWithValue(const CLI::App& description) {
    std::vector<std::string> names;
    for (const CLI::Option* const option : optionsOf(description)) {
        const auto more = takesValue(*option) ? namesOf(*option) : std::vector<std::string>();
        names.insert(names.end(), more.begin(), more.end());
    }
    return names;
}

/// Returns a text in single quotes, as all three shells read it.
std::string quoted(std::string_view text, std::string_view quote) {
    std::string whole = "'";
    for (const char c : text) {
        if (c == '\'') {
            whole += quote;
        } else {
            whole += c;
        }
    }
    return whole + "'";
}

// bash

std::string bashReply(const CLI::App& line, const CLI::Option& option) {
    switch (kindOf(option)) {
    case ValueKind::File:
        return "_filedir";
    case ValueKind::Folder:
        return "_filedir -d";
    case ValueKind::Choice:
        return fmt::format("COMPREPLY=($(compgen -W '{}' -- \"$cur\"))", fmt::join(choicesFor(line, option), " "));
    case ValueKind::None:
        break;
    }
    return ":";
}

/// Returns the cases for the values of options. command: empty for the options of every command.
std::string bashValues(const CLI::App& line, const CLI::App& description, std::string_view command) {
    std::string text;
    for (const CLI::Option* const option : optionsOf(description)) {
        if (!takesValue(*option)) {
            continue;
        }
        std::string patterns;
        for (const std::string& name : namesOf(*option)) {
            patterns += fmt::format("{}{}:{}", patterns.empty() ? "" : "|", command, name);
        }
        text += fmt::format("        {}) {}; return ;;\n", patterns, bashReply(line, *option));
    }
    return text;
}

// zsh

/// Escapes what ends a description in zsh's specifications.
std::string zshDescription(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        escaped += c == '[' || c == ']' || c == ':' || c == '\\' ? std::string{'\\', c} : std::string(1, c);
    }
    return escaped;
}

std::string zshValues(const CLI::App& line, const CLI::Option& option) {
    switch (kindOf(option)) {
    case ValueKind::File:
        return ":file:_files";
    case ValueKind::Folder:
        return ":folder:_files -/";
    case ValueKind::Choice:
        return fmt::format(":choice:({})", fmt::join(choicesFor(line, option), " "));
    case ValueKind::None:
        break;
    }
    return ":value: ";
}

std::string zshOptions(const CLI::App& line, const CLI::App& description, std::string_view indent) {
    constexpr std::string_view kQuote = "'\\''";
    std::string text;
    for (const CLI::Option* const option : optionsOf(description)) {
        const auto names = namesOf(*option);
        for (const std::string& name : names) {
            const std::string form = !takesValue(*option) ? name : name.starts_with("--") ? name + "=" : name + "+";
            const std::string excluded = names.size() > 1 ? fmt::format("({})", fmt::join(names, " ")) : std::string();
            const std::string spec =
                fmt::format("{}{}[{}]{}", excluded, form, zshDescription(option->get_description()),
                            takesValue(*option) ? zshValues(line, *option) : std::string());
            text += fmt::format("{}{}\n", indent, quoted(spec, kQuote));
        }
    }
    return text;
}

// fish

std::string fishValues(const CLI::App& line, const CLI::Option& option) {
    switch (kindOf(option)) {
    case ValueKind::File:
        return " -r -F";
    case ValueKind::Folder:
        return " -x -a '(__fish_complete_directories)'";
    case ValueKind::Choice:
        return fmt::format(" -x -a '{}'", fmt::join(choicesFor(line, option), " "));
    case ValueKind::None:
        break;
    }
    return " -x";
}

std::string fishOptions(const CLI::App& line, const CLI::App& description, const std::string& condition) {
    constexpr std::string_view kQuote = "\\'";
    std::string text;
    for (const CLI::Option* const option : optionsOf(description)) {
        std::string names;
        for (const std::string& name : option->get_snames()) {
            names += " -s " + name;
        }
        for (const std::string& name : option->get_lnames()) {
            names += " -l " + name;
        }
        text += fmt::format("complete -c krvqt{}{}{} -d {}\n", condition, names,
                            takesValue(*option) ? fishValues(line, *option) : std::string(),
                            quoted(option->get_description(), kQuote));
    }
    return text;
}

}  // namespace

std::string bashCompletion(const CLI::App& line) {
    std::vector<std::string> commands;
    std::string values = bashValues(line, line, "*");
    std::string options;
    std::string rest;
    for (const CLI::App* const command : commandsOf(line)) {
        const std::string& name = command->get_name();
        commands.push_back(name);
        values += bashValues(line, *command, name);
        options += fmt::format("        {}) options+=' {}' ;;\n", name, fmt::join(allNames(*command), " "));
        if (const CLI::Option* const positional = positionalOf(*command)) {
            rest += fmt::format("        {}) {} ;;\n", name, bashReply(line, *positional));
        }
    }
    return fmt::format(R"(# bash completion for krvqt(1)

_krvqt() {{
    local cur prev words cword split command= onlyfiles= i
    _init_completion -s || return
    for ((i = 1; i < cword; ++i)); do
        case ${{words[i]}} in
        --) onlyfiles=1 ;;
        {}) [[ $command ]] || ((++i)) ;;
        -*) ;;
        *) [[ $command ]] || command=${{words[i]}} ;;
        esac
    done
    if [[ ! $onlyfiles ]]; then
        case $command:$prev in
{}        esac
        $split && return
        if [[ $cur == -* ]]; then
            local options='{}'
            case $command in
{}            esac
            COMPREPLY=($(compgen -W "$options" -- "$cur"))
            return
        fi
        if [[ ! $command ]]; then
            COMPREPLY=($(compgen -W '{}' -- "$cur"))
            return
        fi
    fi
    case $command in
{}    esac
}}
complete -F _krvqt krvqt
)",
                       fmt::join(namesWithValue(line), "|"), values, fmt::join(allNames(line), " "), options,
                       fmt::join(commands, " "), rest);
}

std::string zshCompletion(const CLI::App& line) {
    constexpr std::string_view kQuote = "'\\''";
    std::string commands;
    std::string cases;
    for (const CLI::App* const command : commandsOf(line)) {
        commands += fmt::format("        {}\n",
                                quoted(command->get_name() + ":" + zshDescription(command->get_description()), kQuote));
        cases += fmt::format("        {})\n            options+=(\n{}", command->get_name(),
                             zshOptions(line, *command, "                "));
        if (const CLI::Option* const positional = positionalOf(*command)) {
            cases += fmt::format("                {}\n", quoted("*" + zshValues(line, *positional), kQuote));
        }
        cases += "            )\n            ;;\n";
    }
    return fmt::format(R"(#compdef krvqt
# zsh completion for krvqt(1)

_krvqt() {{
    local curcontext="$curcontext" state line
    typeset -A opt_args
    local -a options commands
    options=(
{})
    commands=(
{}    )
    _arguments -C -s -S $options '1:command:->command' '*::argument:->argument'
    case $state in
    command)
        _describe -t commands command commands
        ;;
    argument)
        case $words[1] in
{}        esac
        _arguments -s -S $options
        ;;
    esac
}}

if [[ $funcstack[1] == _krvqt ]]; then
    _krvqt "$@"
else
    compdef _krvqt krvqt
fi
)",
                       zshOptions(line, line, "        "), commands, cases);
}

std::string fishCompletion(const CLI::App& line) {
    constexpr std::string_view kQuote = "\\'";
    std::string text = fmt::format(R"(# fish completion for krvqt(1)

function __krvqt_command
    set -l isvalue 0
    for word in (commandline -opc)[2..-1]
        if test $isvalue = 1
            set isvalue 0
            continue
        end
        switch $word
            case {}
                set isvalue 1
            case '-*'
            case '*'
                echo $word
                return
        end
    end
end

complete -c krvqt -f
)",
                                   fmt::join(namesWithValue(line), " "));
    text += fishOptions(line, line, "");
    for (const CLI::App* const command : commandsOf(line)) {
        text += fmt::format("\ncomplete -c krvqt -n 'test -z \"$(__krvqt_command)\"' -a {} -d {}\n",
                            command->get_name(), quoted(command->get_description(), kQuote));
        const std::string condition = fmt::format(" -n 'test \"$(__krvqt_command)\" = {}'", command->get_name());
        text += fishOptions(line, *command, condition);
        const CLI::Option* const positional = positionalOf(*command);
        if (positional && kindOf(*positional) == ValueKind::Choice) {
            text +=
                fmt::format("complete -c krvqt{} -a '{}'\n", condition, fmt::join(choicesFor(line, *positional), " "));
        } else if (positional) {
            text += fmt::format("complete -c krvqt{} -F\n", condition);
        }
    }
    return text;
}

}  // namespace krvqt
