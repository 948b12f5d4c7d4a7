// The lists of codecs and containers, beside the tables of the media server that they describe.
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Jobs/EncodingNames.h>

#include <MediaServer/Media/Codec/CodecTable.h>
#include <MediaServer/Media/Container/ContainerTable.h>
#include <MediaServer/Media/Foundation/FourCC.h>

namespace krvqt {
namespace {

/// Returns a code without the spaces at its end, empty for 0.
std::string codeText(std::uint32_t code) {
    std::string text = code == 0 ? "" : krv::media::fourCCText(code);
    return text.erase(text.find_last_not_of(' ') + 1);
}

TEST(CodecList, HasTheServersCodecs) {
    std::vector<std::string> ours;
    std::vector<std::string> theirs;
    for (const krv::CodecName& codec : krv::codecNames()) {
        ours.push_back(std::string(codec.code) + ' ' + std::string(codec.title) +
                       (codec.isVideo ? " video" : " audio"));
    }
    for (const krv::media::Codec& codec : krv::media::codecs()) {
        theirs.push_back(codeText(codec.fourCC) + ' ' + codec.displayName +
                         (codec.type == AVMEDIA_TYPE_VIDEO ? " video" : " audio"));
    }
    EXPECT_THAT(ours, testing::UnorderedElementsAreArray(theirs));
}

TEST(CodecList, HasTheServersContainers) {
    std::vector<std::string> ours;
    std::vector<std::string> theirs;
    for (const krv::ContainerName& container : krv::containerNames()) {
        ours.push_back(std::string(container.extension) + ' ' + std::string(container.video) + ' ' +
                       std::string(container.audio));
    }
    for (const krv::media::Container& container : krv::media::containers()) {
        theirs.push_back(std::string(container.extension) + ' ' + codeText(container.defaultVideo) + ' ' +
                         codeText(container.defaultAudio));
    }
    EXPECT_THAT(ours, testing::UnorderedElementsAreArray(theirs));
}

}  // namespace
}  // namespace krvqt
