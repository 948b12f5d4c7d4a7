#include <algorithm>
#include <cctype>

extern "C" {
#include <libavutil/bswap.h>
}

#include <fmt/format.h>

#include <MediaServer/Media/Codec/CodecTable.h>
#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Foundation/FourCC.h>

namespace krv::media {
namespace {

using Kind = QualityScale::Kind;

// At viewing distance the standard quality is hard to tell from the source, and the best quality cannot be told from it
// on most material. At the worst quality a viewer can still follow the movie.
//
// clang-format off
constexpr std::array<Encoder, 16> kEncoders{{
    // name          quality: kind            option  worst   best    standard   options
    // rate   interlaced
    {"libx264",     {Kind::Option,         "crf",   40,     12,     20},      "preset=fast",                            true,  true},
    {"libx265",     {Kind::Option,         "crf",   42,     14,     23},      "preset=fast",                            true,  false},
    {"libsvtav1",   {Kind::Option,         "crf",   60,     16,     32},      "preset=8",                               true,  false},
    {"libaom-av1",  {Kind::Option,         "crf",   60,     16,     32},      "cpu-used=6:row-mt=1:b=0",                true,  false},
    {"libvpx-vp9",  {Kind::Option,         "crf",   58,     12,     30},      "deadline=good:cpu-used=4:row-mt=1:b=0",  true,  false},
    {"prores_ks",   {Kind::Quantiser,      "",      24,     1,      0},       "vendor=apl0",                            false, true},
    {"mjpeg",       {Kind::Quantiser,      "",      31,     2,      3},       "",                                       true,  false},
    {"mpeg4",       {Kind::Quantiser,      "",      31,     2,      4},       "",                                       true,  true},
    {"gif",         {Kind::Lossless,       "",      0,      0,      0},       "",                                       false, false},
    {"aac",         {Kind::BitsPerChannel, "",      24000,  160000, 96000},   "",                                       true,  false},
    {"ac3",         {Kind::BitsPerChannel, "",      48000,  160000, 96000},   "",                                       true,  false},
    {"libopus",     {Kind::BitsPerChannel, "",      16000,  128000, 64000},   "",                                       true,  false},
    {"libmp3lame",  {Kind::BitsPerChannel, "",      32000,  160000, 96000},   "",                                       true,  false},
    {"alac",        {Kind::Lossless,       "",      0,      0,      0},       "",                                       false, false},
    {"flac",        {Kind::Lossless,       "",      0,      0,      0},       "",                                       false, false},
    {"pcm",         {Kind::Lossless,       "",      0,      0,      0},       "",                                       false, false},
}};

constexpr AVPixelFormat kNoPixels = AV_PIX_FMT_NONE;
constexpr AVMediaType kVideo = AVMEDIA_TYPE_VIDEO;
constexpr AVMediaType kAudio = AVMEDIA_TYPE_AUDIO;

/// The layouts that every player of these codecs supports. Audio with more channels is mixed down, unless the request
/// asks for these channels.
constexpr std::array<std::uint64_t, 7> kAACLayouts{AV_CH_LAYOUT_MONO,         AV_CH_LAYOUT_STEREO,
                                                   AV_CH_LAYOUT_SURROUND,     AV_CH_LAYOUT_4POINT0,
                                                   AV_CH_LAYOUT_5POINT0_BACK, AV_CH_LAYOUT_5POINT1_BACK, AV_CH_LAYOUT_7POINT1};
constexpr std::array<std::uint64_t, 8> kOpusLayouts{
    AV_CH_LAYOUT_MONO,         AV_CH_LAYOUT_STEREO,       AV_CH_LAYOUT_SURROUND, AV_CH_LAYOUT_QUAD,
    AV_CH_LAYOUT_5POINT0_BACK, AV_CH_LAYOUT_5POINT1_BACK, AV_CH_LAYOUT_6POINT1,  AV_CH_LAYOUT_7POINT1};

constexpr std::array<Codec, 17> kCodecs{{
    // code           type    id                     name             encoders                        options       8
    // bits, more bits                                   with alpha             tag
    {fourCC("avc1"), kVideo, AV_CODEC_ID_H264,      "H.264",         {"libx264", nullptr},           "",           {AV_PIX_FMT_YUV420P,     AV_PIX_FMT_YUV420P},       kNoPixels, {}, 0},
    {fourCC("hvc1"), kVideo, AV_CODEC_ID_HEVC,      "HEVC",          {"libx265", nullptr},           "",           {AV_PIX_FMT_YUV420P,     AV_PIX_FMT_YUV420P10},     kNoPixels, {}, fourCC("hvc1")},
    {fourCC("av01"), kVideo, AV_CODEC_ID_AV1,       "AV1",           {"libsvtav1", "libaom-av1"},    "",           {AV_PIX_FMT_YUV420P,     AV_PIX_FMT_YUV420P10},     kNoPixels, {}, 0},
    {fourCC("vp09"), kVideo, AV_CODEC_ID_VP9,       "VP9",           {"libvpx-vp9", nullptr},        "",           {AV_PIX_FMT_YUV420P,     AV_PIX_FMT_YUV420P10},     kNoPixels, {}, 0},
    {fourCC("apcn"), kVideo, AV_CODEC_ID_PRORES,    "ProRes 422",    {"prores_ks", nullptr},         "profile=2",  {AV_PIX_FMT_YUV422P10,   AV_PIX_FMT_YUV422P10},     kNoPixels, {}, 0},
    {fourCC("apch"), kVideo, AV_CODEC_ID_PRORES,    "ProRes 422 HQ", {"prores_ks", nullptr},         "profile=3",  {AV_PIX_FMT_YUV422P10,   AV_PIX_FMT_YUV422P10},     kNoPixels, {}, 0},
    {fourCC("ap4h"), kVideo, AV_CODEC_ID_PRORES,    "ProRes 4444",   {"prores_ks", nullptr},         "profile=4",  {AV_PIX_FMT_YUV444P10,   AV_PIX_FMT_YUV444P10},     AV_PIX_FMT_YUVA444P10, {}, 0},
    {fourCC("jpeg"), kVideo, AV_CODEC_ID_MJPEG,     "Motion JPEG",   {"mjpeg", nullptr},             "",           {AV_PIX_FMT_YUVJ420P,    AV_PIX_FMT_YUVJ420P},      kNoPixels, {}, 0},
    {fourCC("mp4v"), kVideo, AV_CODEC_ID_MPEG4,     "MPEG-4",        {"mpeg4", nullptr},             "",           {AV_PIX_FMT_YUV420P,     AV_PIX_FMT_YUV420P},       kNoPixels, {}, 0},
    // Frames are given to its encoder with a palette.
    {fourCC("gif "), kVideo, AV_CODEC_ID_GIF,       "GIF",           {"gif", nullptr},               "",           {AV_PIX_FMT_RGB32,       AV_PIX_FMT_RGB32},         AV_PIX_FMT_RGB32, {}, 0},
    {fourCC("mp4a"), kAudio, AV_CODEC_ID_AAC,       "AAC",           {"aac", nullptr},               "",           {kNoPixels,              kNoPixels},                kNoPixels, kAACLayouts, 0},
    {fourCC("alac"), kAudio, AV_CODEC_ID_ALAC,      "ALAC",          {"alac", nullptr},              "",           {kNoPixels,              kNoPixels},                kNoPixels, {}, 0},
    {fourCC("lpcm"), kAudio, AV_CODEC_ID_PCM_S16LE, "PCM",           {"pcm", nullptr},               "",           {kNoPixels,              kNoPixels},                kNoPixels, {}, 0},
    {fourCC("ac-3"), kAudio, AV_CODEC_ID_AC3,       "AC-3",          {"ac3", nullptr},               "",           {kNoPixels,              kNoPixels},                kNoPixels, {}, 0},
    {fourCC("Opus"), kAudio, AV_CODEC_ID_OPUS,      "Opus",          {"libopus", nullptr},           "",           {kNoPixels,              kNoPixels},                kNoPixels, kOpusLayouts, 0},
    {fourCC("fLaC"), kAudio, AV_CODEC_ID_FLAC,      "FLAC",          {"flac", nullptr},              "",           {kNoPixels,              kNoPixels},                kNoPixels, {}, 0},
    {fourCC(".mp3"), kAudio, AV_CODEC_ID_MP3,       "MP3",           {"libmp3lame", nullptr},        "",           {kNoPixels,              kNoPixels},                kNoPixels, {}, 0},
}};
// clang-format on

}  // namespace

std::string fourCCText(std::uint32_t code) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        text += static_cast<char>(code >> shift & 0xff);
    }
    const bool printable = std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isprint(c) != 0; });
    return printable ? text : fmt::format("0x{:08x}", code);
}

std::span<const Codec> codecs() noexcept {
    return kCodecs;
}

const Codec& codecForFourCC(std::uint32_t code, AVMediaType type) {
    const auto found = std::find_if(kCodecs.begin(), kCodecs.end(), [&](const Codec& c) { return c.fourCC == code; });
    if (found == kCodecs.end()) {
        throw Failure({.cause = FailureCause::UnsupportedCodec, .subject = fourCCText(code)});
    }
    if (found->type != type) {
        throw Failure({.cause = FailureCause::WrongKindOfCodec,
                       .subject = fourCCText(code),
                       .detail = type == AVMEDIA_TYPE_VIDEO ? "a video codec" : "an audio codec"});
    }
    return *found;
}

const Codec* codecLike(const AVCodecParameters& parameters) noexcept {
    const bool pcm = avcodec_get_type(parameters.codec_id) == AVMEDIA_TYPE_AUDIO &&
                     parameters.codec_id >= AV_CODEC_ID_FIRST_AUDIO && parameters.codec_id < AV_CODEC_ID_ADPCM_IMA_QT;
    const AVCodecID id = pcm ? AV_CODEC_ID_PCM_S16LE : parameters.codec_id;
    const Codec* like = nullptr;
    for (const Codec& codec : kCodecs) {
        // The tag tells the variants of one codec apart.
        const bool same = parameters.codec_tag == av_bswap32(codec.fourCC);
        if (codec.id == id && (!like || same)) {
            like = &codec;
        }
    }
    return like;
}

const Encoder& encoderNamed(std::string_view name) {
    const auto wanted = name.starts_with("pcm_") ? std::string_view("pcm") : name;
    const auto found =
        std::find_if(kEncoders.begin(), kEncoders.end(), [&](const Encoder& e) { return e.name == wanted; });
    if (found == kEncoders.end()) {
        throw Failure({.cause = FailureCause::InternalError,
                       .reason = fmt::format("the codec table has no row for the encoder {}", name)});
    }
    return *found;
}

double scaledQuality(const QualityScale& scale, double quality) noexcept {
    return quality <= 0 ? scale.standard : scale.worst + quality * (scale.best - scale.worst);
}

}  // namespace krv::media
