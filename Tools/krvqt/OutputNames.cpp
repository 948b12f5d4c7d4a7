#include "OutputNames.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <string_view>

#include <fmt/format.h>

#include <KRVQTProcessClient/Jobs/EncodingNames.h>

#include "Options.h"
#include "Paths.h"
#include "TextValues.h"
#include "Usage.h"

namespace krvqt {
namespace {

namespace fs = std::filesystem;

/// Returns whether a name is a URL: a scheme and "://". A file with such a name can be given with a folder before it.
bool isURL(std::string_view name) {
    const auto colon = name.find("://");
    return colon != std::string_view::npos && colon > 0 &&
           std::all_of(name.begin(), name.begin() + static_cast<std::ptrdiff_t>(colon),
                       [](unsigned char c) { return std::isalnum(c) != 0 || c == '+' || c == '-' || c == '.'; });
}

void checkName(const std::string& name, std::string_view stream, std::string_view verb) {
    if (name == "-") {
        usage(fmt::format("{} cannot be {}; give the name of a file", stream, verb));
    }
    if (isURL(name)) {
        usage(name.starts_with("file://") ? fmt::format("{} is a URL; give the path of the file instead", name)
                                          : fmt::format("{} is a URL, and only files can be {}", name, verb));
    }
}

bool exists(const std::string& file) {
    std::error_code failure;
    return fs::exists(fs::symlink_status(file, failure));
}

bool isSameFile(const std::string& one, const std::string& other) {
    std::error_code failure;
    return fs::path(one).lexically_normal() == fs::path(other).lexically_normal() ||
           fs::equivalent(one, other, failure);
}

std::vector<std::string> absolutePaths(const std::vector<std::string>& names) {
    std::vector<std::string> paths;
    for (const std::string& name : names) {
        checkSource(name);
        paths.push_back(absolutePath(name));
    }
    return paths;
}

}  // namespace

void checkSource(const std::string& name) {
    checkName(name, "standard input", "read");
}

void checkDestination(const FileToWrite& file, bool force) {
    std::error_code failure;
    if (fs::is_directory(file.destination, failure)) {
        usage(fmt::format("{} is a folder; give the name of a file in it", file.destination));
    }
    for (const std::string& source : file.sources) {
        if (isSameFile(source, file.destination)) {
            usage(
                fmt::format("{} is to be read and written; give another name for the file to write", file.destination));
        }
    }
    if (!force && exists(file.destination)) {
        usage(fmt::format("{} exists; use --force to replace it", file.destination));
    }
}

void checkContainer(const std::string& file) {
    const std::string extension = lowerCase(fs::path(file).extension().string());
    std::vector<std::string> known;
    for (const krv::ContainerName& container : krv::containerNames()) {
        if (extension.substr(extension.empty() ? 0 : 1) == container.extension) {
            return;
        }
        known.emplace_back(container.extension);
    }
    usage(extension.empty()
              ? fmt::format("{} has no extension, which decides the container: {}", file, fmt::join(known, ", "))
              : fmt::format("{} files cannot be written; choose another extension: {}", extension,
                            fmt::join(known, ", ")));
}

FileToWrite Naming::oneFile() const {
    std::vector<std::string> sources = names;
    std::string destination;
    if (output) {
        destination = *output;
    } else {
        destination = sources.back();
        sources.pop_back();
    }
    if (sources.empty()) {
        usage(fmt::format("only {} is given; a source and a destination are needed", destination));
    }
    checkName(destination, "standard output", "written");
    FileToWrite file{.sources = absolutePaths(sources), .destination = absolutePath(destination)};
    // Somebody who forgot the destination must not be told how to replace the last source.
    const bool mayBeSource = !output && takesMany;
    checkDestination(file, force || mayBeSource);
    if (!force && exists(file.destination)) {
        usage(fmt::format("{} exists; is the last name the file to write? Name that file with -o FILE",
                          file.destination));
    }
    return file;
}

std::vector<FileToWrite> filesInFolder(const std::vector<std::string>& sources, const std::string& folder,
                                       const std::string& extension, bool force) {
    checkName(folder, "standard output", "written");
    std::error_code failure;
    const std::string whole = absolutePath(folder);
    if (exists(whole) && !fs::is_directory(whole, failure)) {
        usage(fmt::format("{} is not a folder", whole));
    }
    std::vector<FileToWrite> files;
    std::map<std::string, std::string> sourceOf;
    for (const std::string& source : absolutePaths(sources)) {
        fs::path name = fs::path(source).filename();
        if (!extension.empty()) {
            name.replace_extension(extension);
        }
        FileToWrite file{.sources = {source}, .destination = (fs::path(whole) / name).string()};
        checkDestination(file, true);
        if (const auto [same, isNew] = sourceOf.emplace(file.destination, source); !isNew) {
            usage(fmt::format("{} and {} would both become {}", same->second, source, file.destination));
        }
        files.push_back(std::move(file));
    }
    for (const FileToWrite& file : files) {
        if (!exists(file.destination)) {
            continue;
        }
        for (const FileToWrite& other : files) {
            if (isSameFile(other.sources.front(), file.destination)) {
                usage(
                    fmt::format("{} is to be read and written; choose another folder or container", file.destination));
            }
        }
        if (!force) {
            usage(fmt::format("{} exists; use --force to replace it", file.destination));
        }
    }
    return files;
}

void addOutput(CLI::App& command, Naming& naming) {
    command.add_option("-o,--output", naming.output, "the file to write; all other names are sources then")
        ->type_name("FILE");
    addForce(command, naming.force);
}

}  // namespace krvqt
