#include <algorithm>
#include <array>

#include <MediaServer/Media/Container/StreamSelection.h>
#include <MediaServer/Media/Container/TrackNames.h>

namespace krv::media {
namespace {

struct Name {
    AVCodecID codec;
    const char* name;
};
/// Codecs whose common name is not FFmpeg's.
constexpr std::array<Name, 28> kNames{{
    {AV_CODEC_ID_H264, "H.264"},
    {AV_CODEC_ID_HEVC, "HEVC"},
    {AV_CODEC_ID_H263, "H.263"},
    {AV_CODEC_ID_VP8, "VP8"},
    {AV_CODEC_ID_VP9, "VP9"},
    {AV_CODEC_ID_AV1, "AV1"},
    {AV_CODEC_ID_PRORES, "ProRes"},
    {AV_CODEC_ID_DNXHD, "DNxHD"},
    {AV_CODEC_ID_MJPEG, "Motion JPEG"},
    {AV_CODEC_ID_MPEG1VIDEO, "MPEG-1"},
    {AV_CODEC_ID_MPEG2VIDEO, "MPEG-2"},
    {AV_CODEC_ID_MPEG4, "MPEG-4"},
    {AV_CODEC_ID_DVVIDEO, "DV"},
    {AV_CODEC_ID_THEORA, "Theora"},
    {AV_CODEC_ID_CINEPAK, "Cinepak"},
    {AV_CODEC_ID_QTRLE, "Animation"},
    {AV_CODEC_ID_RAWVIDEO, "Uncompressed"},
    {AV_CODEC_ID_PNG, "PNG"},
    {AV_CODEC_ID_GIF, "GIF"},
    {AV_CODEC_ID_AAC, "AAC"},
    {AV_CODEC_ID_ALAC, "ALAC"},
    {AV_CODEC_ID_AC3, "AC-3"},
    {AV_CODEC_ID_EAC3, "E-AC-3"},
    {AV_CODEC_ID_MP2, "MP2"},
    {AV_CODEC_ID_MP3, "MP3"},
    {AV_CODEC_ID_FLAC, "FLAC"},
    {AV_CODEC_ID_OPUS, "Opus"},
    {AV_CODEC_ID_VORBIS, "Vorbis"},
}};

}  // namespace

std::string kindOf(const AVStream& stream) {
    if (isCover(stream)) {
        return "cover";
    }
    switch (stream.codecpar->codec_type) {
    case AVMEDIA_TYPE_VIDEO:
        return "video";
    case AVMEDIA_TYPE_AUDIO:
        return "audio";
    case AVMEDIA_TYPE_SUBTITLE:
        return "subtitle";
    case AVMEDIA_TYPE_ATTACHMENT:
        return "attachment";
    default:
        return "data";
    }
}

std::string codecOf(const AVStream& stream) {
    const AVCodecParameters& codec = *stream.codecpar;
    if (codec.codec_id != AV_CODEC_ID_NONE && codec.codec_id != AV_CODEC_ID_BIN_DATA) {
        return avcodec_get_name(codec.codec_id);
    }
    if (codec.codec_tag == 0) {
        return "";
    }
    std::array<char, AV_FOURCC_MAX_STRING_SIZE> name{};
    return av_fourcc_make_string(name.data(), codec.codec_tag);
}

std::string displayName(AVCodecID codec) {
    const auto found = std::find_if(kNames.begin(), kNames.end(), [codec](const Name& n) { return n.codec == codec; });
    if (found != kNames.end()) {
        return found->name;
    }
    const std::string name = avcodec_get_name(codec);
    return name.starts_with("pcm_") ? "PCM" : name;
}

std::string languageOf(const AVStream& stream) {
    constexpr std::size_t kLongest = 35;  // of BCP 47
    const AVDictionaryEntry* const entry = av_dict_get(stream.metadata, "language", nullptr, 0);
    const std::string language = entry ? entry->value : "";
    const bool valid =
        language.size() <= kLongest && std::all_of(language.begin(), language.end(), [](char c) {
            return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
        });
    return valid ? language : "";
}

}  // namespace krv::media
