// Compares the tables of Documentation/media-server.md with the program.
#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "MediaTestKit.h"
#include <MediaServer/Media/Codec/CodecTable.h>
#include <MediaServer/Media/Codec/Settings.h>
#include <MediaServer/Media/Container/ContainerTable.h>
#include <MediaServer/Media/Foundation/FourCC.h>
#include <MediaServer/Media/Transcode/EncodingType.h>

namespace krv::media::test {
namespace {

using Row = std::vector<std::string>;

/// Returns the rows of the table whose header begins with these words, without header and rule.
std::vector<Row> table(const std::string& headerBegins) {
    std::istringstream in(readFile(KRV_DOCUMENTATION "/media-server.md"));
    std::vector<Row> rows;
    bool inside = false;
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("| " + headerBegins)) {
            inside = true;
            std::getline(in, line);
        } else if (inside && line.starts_with("|")) {
            Row row;
            std::istringstream cells(line.substr(1));
            for (std::string cell; std::getline(cells, cell, '|');) {
                const auto first = cell.find_first_not_of(' ');
                if (first != std::string::npos) {
                    row.push_back(cell.substr(first, cell.find_last_not_of(' ') - first + 1));
                }
            }
            rows.push_back(row);
        } else if (inside) {
            break;
        }
    }
    EXPECT_FALSE(rows.empty()) << headerBegins;
    return rows;
}

std::string code(std::uint32_t fourCC) {
    if (fourCC == 0) {
        return "none";
    }
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        text += static_cast<char>(fourCC >> shift & 0xff);
    }
    text.erase(text.find_last_not_of(' ') + 1);  // as the cells of a table
    return text;
}

TEST(Documentation, ListsTheCodecsAsTheyAre) {
    std::vector<Row> expected;
    for (const Codec& codec : codecs()) {
        const QualityScale& scale = encoderNamed(codec.encoders.front()).quality;
        const std::map<QualityScale::Kind, std::string> kinds{
            {QualityScale::Kind::Lossless, "nothing: lossless"},
            {QualityScale::Kind::Option, scale.option},
            {QualityScale::Kind::Quantiser, "quantiser"},
            {QualityScale::Kind::BitsPerChannel, "bits per second and channel"}};
        expected.push_back({code(codec.fourCC), codec.displayName, codec.encoders.front(), kinds.at(scale.kind),
                            fmt::format("{:.0f}", scale.worst), fmt::format("{:.0f}", scale.best),
                            fmt::format("{:.0f}", scale.standard)});
    }
    EXPECT_EQ(table("Code | Codec"), expected);
}

TEST(Documentation, ListsTheContainersAsTheyAre) {
    std::vector<Row> expected;
    for (const Container& container : containers()) {
        expected.push_back(
            {std::string(container.extension), code(container.defaultVideo), code(container.defaultAudio),
             container.textSubtitles == AV_CODEC_ID_NONE ? "none" : avcodec_get_name(container.textSubtitles)});
    }
    EXPECT_EQ(table("Extension"), expected);
}

TEST(Documentation, ListsTheEncodingTypesAsTheyAre) {
    const auto track = [](EncodingType::Codec kind, std::uint32_t fourCC) -> std::string {
        switch (kind) {
        case EncodingType::Codec::Copy:
            return "copied, else the container's default";
        case EncodingType::Codec::Settings:
            return "as the settings say";
        case EncodingType::Codec::Fixed:
            return code(fourCC);
        case EncodingType::Codec::Preferred:
            return code(fourCC) + ", else the container's default";
        case EncodingType::Codec::None:
            break;
        }
        return "none";
    };
    std::vector<Row> expected;
    for (const EncodingType& type : encodingTypes()) {
        expected.push_back({std::to_string(type.number), type.name, track(type.video, type.videoCodec),
                            track(type.audio, type.audioCodec)});
    }
    EXPECT_EQ(table("Number"), expected);
}

TEST(Documentation, ListsTheSettingsThatAreAccepted) {
    const std::map<std::string, std::string> values{{"width", "64"},
                                                    {"height", "64"},
                                                    {"bitrate", "100000"},
                                                    {"preset", "fast"},
                                                    {"channels", "2"},
                                                    {"sampleRate", "44100"},
                                                    {"pixelFormat", "yuv420p"},
                                                    {"trimStart", "1.5"},
                                                    {"trimEnd", "2"},
                                                    {"audioTracks", "1"},
                                                    {"subtitleTracks", "2,deu"},
                                                    {"strict", "1"},
                                                    {"burnInSubtitleTrack", "deu"}};
    const auto rows = table("Key | For");
    EXPECT_EQ(rows.size(), values.size());
    for (const Row& row : rows) {
        const std::string text = row.at(0) + "=" + values.at(row.at(0));
        // A key that we know does not become an encoder option, unlike any other word.
        const auto isOurs = [&text](AVMediaType type) {
            try {
                const Settings settings = parseSettings(text, type);
                return settings.options.empty() || settings.options.front().first == "preset";
            } catch (const Failure&) {
                return false;
            }
        };
        EXPECT_EQ(isOurs(AVMEDIA_TYPE_VIDEO), row.at(1) != "audio") << text;
        EXPECT_EQ(isOurs(AVMEDIA_TYPE_AUDIO), row.at(1) != "video") << text;
    }
}

}  // namespace
}  // namespace krv::media::test
