#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// Maps a quality in ]0, 1] to a parameter of an encoder, linearly from worst (towards 0) to best (1).
struct QualityScale {
    enum class Kind {
        Lossless,        ///< the encoder is lossless; the value is accepted and has no effect
        Option,          ///< a private option of the encoder for constant quality
        Quantiser,       ///< FFmpeg's generic fixed quantiser
        BitsPerChannel,  ///< bits per second, times the number of channels
    };
    Kind kind;
    const char* option;
    double worst;
    double best;
    double standard;  ///< used for quality 0
};

/// One of FFmpeg's encoders and the options that we use it with. One row per encoder.
struct Encoder {
    const char* name;
    QualityScale quality;
    const char* options;    ///< "key=value:…"; set before the options of the request
    bool hasBitRate;        ///< accepts a bit rate
    bool keepsInterlacing;  ///< can encode interlaced video and flag it as such
};

/// A codec that a request can name. One row per four-character code. The first encoder that opens is used.
struct Codec {
    std::uint32_t fourCC;
    AVMediaType type;
    AVCodecID id;
    const char* displayName;
    std::array<const char*, 2> encoders;
    const char* options;                        ///< "key=value:…" for the variant that this code means
    std::array<AVPixelFormat, 2> pixelFormats;  ///< for sources of 8 bits and of more; NONE for audio
    AVPixelFormat alphaPixelFormat;             ///< for sources with alpha; NONE: alpha is dropped
    std::span<const std::uint64_t> layouts;     ///< allowed channel layouts; empty: those of FFmpeg's encoder
    std::uint32_t quickTimeTag;                 ///< tag in the mov family if it differs from FFmpeg's choice; else 0
};

/// Returns all rows.
[[nodiscard]] std::span<const Codec> codecs() noexcept;

/// Returns the row of a code. Throws Failure with UnsupportedCodec or WrongKindOfCodec.
[[nodiscard]] const Codec& codecForFourCC(std::uint32_t code, AVMediaType type);

/// Returns the row of the codec that a stream is already in, or null if there is none.
[[nodiscard]] const Codec* codecLike(const AVCodecParameters& parameters) noexcept;

/// Returns the row of an encoder by FFmpeg's name, which must be one of those named in a Codec.
[[nodiscard]] const Encoder& encoderNamed(std::string_view name);

/// Returns the encoder's parameter for a quality in [0, 1]; 0 means the standard quality.
[[nodiscard]] double scaledQuality(const QualityScale& scale, double quality) noexcept;

}  // namespace krv::media
