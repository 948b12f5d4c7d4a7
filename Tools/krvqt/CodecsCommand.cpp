#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/Jobs/EncodingNames.h>

#include "Commands.h"
#include "Output.h"
#include "Paths.h"

namespace krvqt {
namespace {

ExitStatus showCodecs(const CommonOptions& common) {
    for (const krv::CodecName& codec : krv::codecNames()) {
        const std::string_view kind = codec.isVideo ? "video" : "audio";
        if (common.json) {
            printJSON({{"name", codec.name}, {"code", codec.code}, {"title", codec.title}, {"kind", kind}});
        } else {
            printOut("{:<7} {:<5} {:<6} {}\n", codec.name, codec.code, kind, codec.title);
        }
    }
    return kDone;
}

ExitStatus showContainers(const CommonOptions& common) {
    const auto shown = [](std::string_view codec) { return codec.empty() ? std::string_view("-") : codec; };
    for (const krv::ContainerName& container : krv::containerNames()) {
        if (common.json) {
            nlohmann::json json{{"extension", container.extension}, {"video", nullptr}, {"audio", nullptr}};
            if (!container.video.empty()) {
                json["video"] = container.video;
            }
            if (!container.audio.empty()) {
                json["audio"] = container.audio;
            }
            printJSON(json);
        } else {
            printOut("{:<5} {:<5} {}\n", container.extension, shown(container.video), shown(container.audio));
        }
    }
    return kDone;
}

}  // namespace

void addCodecs(CommandLine& line) {
    line.add("codecs", "list the codecs: common name, four-character code, kind", showCodecs);
    line.add("containers", "list the containers: extension, default video and audio codecs", showContainers);
}

}  // namespace krvqt
