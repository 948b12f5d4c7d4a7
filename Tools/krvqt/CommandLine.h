#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include <CLI/App.hpp>

#include "ExitStatus.h"
#include "Options.h"

namespace krvqt {

/// The command line: the commands with their options, from which it is parsed. Everything that describes krvqt to
/// people is made from it.
class CommandLine {
public:
    /// Runs a command, after its options have been set.
    using Run = std::function<ExitStatus(const CommonOptions&)>;

    /// Describes the options of every command.
    CommandLine();

    /// Adds a command. Options are added to the returned description, which belongs to this object. Where their values
    /// are stored must outlive the command, so `run` should own it.
    CLI::App& add(const std::string& name, const std::string& description, Run run);

    /// Parses the arguments and runs the command that they name. Prints help, or what is wrong with the arguments.
    ExitStatus run(std::vector<std::string> arguments);

    /// Returns what describes the commands and their options.
    [[nodiscard]] const CLI::App& description() const { return app_; }

private:
    ExitStatus parseAndRun(std::vector<std::string> arguments);
    void parse(const CLI::App& command, std::vector<std::string> arguments);

    CLI::App app_;
    CommonOptions common_;
    double wait_;
    std::map<std::string, Run> commands_;
};

}  // namespace krvqt
