#include "ArgumentCheck.h"

#include <cstddef>

#include <fmt/format.h>

#include "Spelling.h"
#include "Usage.h"

namespace krvqt {
namespace {

bool takesValue(const CLI::Option& option) {
    return option.get_items_expected_max() > 0;
}

std::vector<std::string> optionNames(const CLI::App& line, const CLI::App* command) {
    std::vector<std::string> names;
    const auto collect = [&names](const CLI::App& app) {
        for (const CLI::Option* const option : app.get_options()) {
            for (const std::string& name : option->get_lnames()) {
                names.push_back("--" + name);
            }
        }
    };
    if (command) {
        collect(*command);
    }
    collect(line);
    return names;
}

/// Walks over the arguments as the parser will.
class Check {
public:
    explicit Check(const CLI::App& line)
        : line_(line) {}

    Request walk(const std::vector<std::string>& arguments) {
        for (next_ = 0; next_ < arguments.size();) {
            const std::string& argument = arguments[next_++];
            if (argument == "--") {
                break;
            }
            if (argument.starts_with("--")) {
                checkLong(argument, arguments);
            } else if (argument.starts_with('-') && argument.size() > 1) {
                checkShort(argument, arguments);
            } else if (!request_.command) {
                request_.command = &commandNamed(line_, argument);
            }
        }
        if (!request_.command && !request_.help && !request_.version) {
            throw UsageError("a command is missing; 'krvqt help' lists them");
        }
        return request_;
    }

private:
    [[nodiscard]] const CLI::Option* find(const std::string& name) {
        const CLI::Option* option = request_.command ? request_.command->get_option_no_throw(name) : nullptr;
        option = option ? option : line_.get_option_no_throw(name);
        request_.help = request_.help || (option && option->check_lname("help"));
        request_.version = request_.version || (option && option->check_lname("version"));
        return option;
    }
    void checkLong(const std::string& argument, const std::vector<std::string>& arguments) {
        const std::string name = argument.substr(0, argument.find('='));
        const CLI::Option* const option = find(name);
        if (!option) {
            unknown(name);
        }
        if (takesValue(*option) && name == argument) {
            skipValue(*option, name, arguments);
        }
        if (!takesValue(*option) && name != argument) {
            throw UsageError(fmt::format("{} takes no value", name));
        }
    }
    void checkShort(const std::string& argument, const std::vector<std::string>& arguments) {
        for (std::size_t i = 1; i < argument.size(); ++i) {
            const std::string name{'-', argument[i]};
            const CLI::Option* const option = find(name);
            if (!option) {
                unknown(argument);
            }
            if (takesValue(*option)) {
                if (i + 1 == argument.size()) {
                    skipValue(*option, name, arguments);
                }
                return;
            }
        }
    }
    void skipValue(const CLI::Option& option, const std::string& name, const std::vector<std::string>& arguments) {
        if (next_ == arguments.size()) {
            throw UsageError(fmt::format("{} needs a value: {}", name, option.get_type_name()));
        }
        ++next_;
    }
    [[noreturn]] void unknown(const std::string& name) const {
        std::string text =
            fmt::format("unknown option {}{}", name, didYouMean(name, optionNames(line_, request_.command)));
        if (!name.starts_with("--")) {
            text += "; the name of a file that begins with - follows --";
        }
        throw UsageError(text);
    }

    const CLI::App& line_;
    Request request_;
    std::size_t next_ = 0;
};

}  // namespace

Request checkArguments(const CLI::App& line, const std::vector<std::string>& arguments) {
    return Check(line).walk(arguments);
}

std::vector<const CLI::App*> commandsOf(const CLI::App& line) {
    return line.get_subcommands([](const CLI::App*) { return true; });
}

const CLI::App& commandNamed(const CLI::App& line, const std::string& name) {
    std::vector<std::string> names;
    for (const CLI::App* const command : commandsOf(line)) {
        if (command->get_name() == name) {
            return *command;
        }
        names.push_back(command->get_name());
    }
    const std::string meant = didYouMean(name, names);
    throw UsageError(
        fmt::format("unknown command '{}'{}", name, meant.empty() ? "; 'krvqt help' lists the commands" : meant));
}

}  // namespace krvqt
