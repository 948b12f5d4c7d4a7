#include <algorithm>
#include <array>
#include <cctype>
#include <initializer_list>

#include <MediaServer/Media/Container/ContainerTable.h>
#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Foundation/FourCC.h>

namespace krv::media {
namespace {

constexpr auto kH264 = fourCC("avc1");
constexpr auto kAAC = fourCC("mp4a");
constexpr auto kPCM = fourCC("lpcm");
constexpr auto kMP3 = fourCC(".mp3");
constexpr auto kMPEG4 = fourCC("mp4v");
constexpr auto kGIF = fourCC("gif ");

/// The receiver gets every packet this many microseconds before it is decoded, as broadcasters do it. Without that, a
/// player with small buffers stutters.
constexpr auto kBroadcast = "max_delay=700000";

/// Otherwise the muxer would move all tracks if one began before 0, and leave out the first frames.
constexpr auto kUnshifted = "avoid_negative_ts=disabled";

// clang-format off
constexpr std::array<Container, 14> kContainers{{
    // extension  muxer       video           audio           subtitles              cover                 front  matrix
    // edits  single times             options
    {"mov",  "mov",      kH264,          kAAC,           AV_CODEC_ID_MOV_TEXT, CoverArt::Tag,        true,  true,  true,  false, Times::Stored,    ""},
    {"mp4",  "mp4",      kH264,          kAAC,           AV_CODEC_ID_MOV_TEXT, CoverArt::Stream,     true,  true,  true,  false, Times::Stored,    ""},
    {"m4v",  "mp4",      kH264,          kAAC,           AV_CODEC_ID_MOV_TEXT, CoverArt::Stream,     true,  true,  true,  false, Times::Stored,    "brand=M4V "},
    {"m4a",  "ipod",     0,              kAAC,           AV_CODEC_ID_NONE,     CoverArt::Stream,     true,  false, true, false, Times::Stored,    ""},
    {"mkv",  "matroska", kH264,          kAAC,           AV_CODEC_ID_ASS,      CoverArt::Attachment, false, false, false, false, Times::Stored,    ""},
    {"webm", "webm",     fourCC("vp09"), fourCC("Opus"), AV_CODEC_ID_WEBVTT,   CoverArt::None,       false, false, false, false, Times::Stored,    ""},
    {"mka",  "matroska", 0,              kAAC,           AV_CODEC_ID_NONE,     CoverArt::Attachment, false, false, false, false, Times::Stored,    ""},
    {"wav",  "wav",      0,              kPCM,           AV_CODEC_ID_NONE,     CoverArt::None,       false, false, false, true,  Times::Following, "rf64=auto"},
    {"mp3",  "mp3",      0,              kMP3,           AV_CODEC_ID_NONE,     CoverArt::Stream,     false, false, false, true,  Times::Following, ""},
    {"flac", "flac",     0,              fourCC("fLaC"), AV_CODEC_ID_NONE,     CoverArt::Stream,     false, false, false, true,  Times::Following, ""},
    {"ogg",  "ogg",      0,              fourCC("Opus"), AV_CODEC_ID_NONE,     CoverArt::None,       false, false, false, false, Times::Stored,    ""},
    {"avi",  "avi",      kMPEG4,         kMP3,           AV_CODEC_ID_NONE,     CoverArt::None,       false, false, false, false, Times::Counted,   kUnshifted},
    {"ts",   "mpegts",   kH264,          kAAC,           AV_CODEC_ID_NONE,     CoverArt::None,       false, false, false, false, Times::Stored,    kBroadcast},
    {"gif",  "gif",      kGIF,           0,              AV_CODEC_ID_NONE,     CoverArt::None,       false, false, false, false, Times::Delays,    ""},
}};
// clang-format on

bool among(AVCodecID codec, std::initializer_list<AVCodecID> list) {
    return std::find(list.begin(), list.end(), codec) != list.end();
}

}  // namespace

bool Container::holds(AVCodecID codec) const {
    if (extension == "m4a") {
        return among(codec, {AV_CODEC_ID_AAC, AV_CODEC_ID_ALAC, AV_CODEC_ID_AC3});
    }
    if (extension == "wav") {
        return among(codec,
                     {AV_CODEC_ID_PCM_S16LE, AV_CODEC_ID_PCM_S24LE, AV_CODEC_ID_PCM_S32LE, AV_CODEC_ID_PCM_U8,
                      AV_CODEC_ID_PCM_F32LE, AV_CODEC_ID_PCM_F64LE, AV_CODEC_ID_PCM_ALAW, AV_CODEC_ID_PCM_MULAW});
    }
    if (extension == "mp3") {
        return codec == AV_CODEC_ID_MP3;
    }
    if (extension == "flac") {
        return codec == AV_CODEC_ID_FLAC;
    }
    if (extension == "ogg") {
        return among(codec,
                     {AV_CODEC_ID_OPUS, AV_CODEC_ID_VORBIS, AV_CODEC_ID_FLAC, AV_CODEC_ID_SPEEX, AV_CODEC_ID_THEORA});
    }
    if (extension == "webm") {
        return among(codec, {AV_CODEC_ID_VP8, AV_CODEC_ID_VP9, AV_CODEC_ID_AV1, AV_CODEC_ID_OPUS, AV_CODEC_ID_VORBIS,
                             AV_CODEC_ID_WEBVTT});
    }
    if (extension == "avi") {
        return among(codec, {AV_CODEC_ID_MPEG4, AV_CODEC_ID_H264, AV_CODEC_ID_MJPEG, AV_CODEC_ID_MPEG1VIDEO,
                             AV_CODEC_ID_MPEG2VIDEO, AV_CODEC_ID_DVVIDEO, AV_CODEC_ID_MSMPEG4V2, AV_CODEC_ID_MSMPEG4V3,
                             AV_CODEC_ID_HUFFYUV, AV_CODEC_ID_FFV1, AV_CODEC_ID_RAWVIDEO, AV_CODEC_ID_MP3,
                             AV_CODEC_ID_MP2, AV_CODEC_ID_AC3, AV_CODEC_ID_AAC, AV_CODEC_ID_PCM_S16LE,
                             AV_CODEC_ID_PCM_S24LE, AV_CODEC_ID_PCM_U8});
    }
    if (extension == "gif") {
        return codec == AV_CODEC_ID_GIF;
    }
    if (extension == "ts") {
        return among(codec, {AV_CODEC_ID_H264, AV_CODEC_ID_HEVC, AV_CODEC_ID_MPEG2VIDEO, AV_CODEC_ID_MPEG1VIDEO,
                             AV_CODEC_ID_MPEG4, AV_CODEC_ID_AAC, AV_CODEC_ID_MP3, AV_CODEC_ID_MP2, AV_CODEC_ID_AC3,
                             AV_CODEC_ID_EAC3, AV_CODEC_ID_DTS, AV_CODEC_ID_DVB_SUBTITLE, AV_CODEC_ID_DVB_TELETEXT});
    }
    if (extension == "mka" && avcodec_get_type(codec) != AVMEDIA_TYPE_AUDIO) {
        return false;
    }
    // The muxer lists these codecs for its whole family of containers, but refuses them in this one.
    if (extension == "mov" && among(codec, {AV_CODEC_ID_VP8, AV_CODEC_ID_VP9, AV_CODEC_ID_AV1, AV_CODEC_ID_OPUS,
                                            AV_CODEC_ID_FLAC, AV_CODEC_ID_TRUEHD})) {
        return false;
    }
    if ((extension == "mp4" || extension == "m4v") && codec == AV_CODEC_ID_TRUEHD) {
        return false;
    }
    const AVOutputFormat* format = av_guess_format(muxer, nullptr, nullptr);
    return format && avformat_query_codec(format, codec, FF_COMPLIANCE_NORMAL) == 1;
}

std::span<const Container> containers() noexcept {
    return kContainers;
}

const Container& containerForPath(const std::string& path) {
    const auto name = path.substr(path.rfind('/') + 1);
    const auto dot = name.rfind('.');
    std::string extension = dot == std::string::npos ? "" : name.substr(dot + 1);
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    const auto found = std::find_if(kContainers.begin(), kContainers.end(),
                                    [&](const Container& c) { return c.extension == extension; });
    if (found == kContainers.end()) {
        if (extension.empty()) {
            throw Failure({.cause = FailureCause::NoContainer});
        }
        throw Failure({.cause = FailureCause::UnsupportedContainer, .subject = extension});
    }
    return *found;
}

}  // namespace krv::media
