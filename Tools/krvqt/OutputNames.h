#pragma once

#include <optional>
#include <string>
#include <vector>

#include <CLI/App.hpp>

namespace krvqt {

/// One file to write, and what is read for it. Absolute paths.
struct FileToWrite {
    std::vector<std::string> sources;
    std::string destination;
};

/// How the names on a command line are meant.
struct Naming {
    /// As given.
    std::vector<std::string> names{};
    /// The file of --output.
    std::optional<std::string> output{};
    bool force = false;
    /// Whether the last name is easily taken for another source.
    bool takesMany = false;

    /// Returns the file for a command that makes one movie of all sources. Without --output it is the last name. Throws
    /// UsageError if a name cannot be read or written.
    [[nodiscard]] FileToWrite oneFile() const;
};

/// Returns one file in the folder for each source: its name with this extension, or with its own if that is empty.
/// Throws UsageError if two sources would have the same file, or if a name cannot be read or written.
[[nodiscard]] std::vector<FileToWrite> filesInFolder(const std::vector<std::string>& sources, const std::string& folder,
                                                     const std::string& extension, bool force);

/// Throws UsageError if the destination is a folder or one of the sources, or if it exists and force is not set.
void checkDestination(const FileToWrite& file, bool force);

/// Throws UsageError if the server writes no files with this extension.
void checkContainer(const std::string& file);

/// Throws UsageError if the name stands for standard input or is a URL.
void checkSource(const std::string& name);

/// Adds --output and --force.
void addOutput(CLI::App& command, Naming& naming);

}  // namespace krvqt
