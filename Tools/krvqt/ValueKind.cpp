#include "ValueKind.h"

#include <string_view>

#include <KRVQTProcessClient/Jobs/EncodingNames.h>

#include "ArgumentCheck.h"

namespace krvqt {
namespace {

std::vector<std::string> codecs(bool video) {
    std::vector<std::string> names;
    for (const krv::CodecName& codec : krv::codecNames()) {
        if (codec.isVideo == video) {
            names.emplace_back(codec.name);
        }
    }
    return names;
}

std::vector<std::string> containers() {
    std::vector<std::string> names;
    for (const krv::ContainerName& container : krv::containerNames()) {
        names.emplace_back(container.extension);
    }
    return names;
}

}  // namespace

ValueKind kindOf(const CLI::Option& option) {
    const std::string type = option.get_type_name();
    if (type == "TYPE" || type == "CODEC" || type == "EXT" || type == "[COMMAND]") {
        return ValueKind::Choice;
    }
    if (type == "FOLDER") {
        return ValueKind::Folder;
    }
    return option.get_positional() || type == "FILE" ? ValueKind::File : ValueKind::None;
}

std::vector<std::string> choicesFor(const CLI::App& line, const CLI::Option& option) {
    const std::string type = option.get_type_name();
    if (type == "TYPE") {
        // The names without spaces, which need no quotes.
        return {"h264", "hevc", "prores", "vp9", "av1", "audio", "original", "custom"};
    }
    if (type == "CODEC") {
        return codecs(option.get_lnames().front().starts_with("video"));
    }
    if (type == "EXT") {
        return containers();
    }
    std::vector<std::string> names;
    for (const CLI::App* const command : commandsOf(line)) {
        names.push_back(command->get_name());
    }
    return names;
}

const CLI::Option* positionalOf(const CLI::App& command) {
    const CLI::Option* last = nullptr;
    for (const CLI::Option* const option : command.get_options()) {
        last = option->get_positional() ? option : last;
    }
    return last;
}

}  // namespace krvqt
