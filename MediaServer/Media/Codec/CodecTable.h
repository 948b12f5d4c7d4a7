#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// How a quality in ]0, 1] reaches an encoder. Between worst (towards 0) and best (1) the mapping is linear.
struct QualityScale {
    enum class Kind {
        Lossless,        ///< the encoder has one quality, the full one; the value is accepted and has no effect
        Option,          ///< a private option of the encoder, constant quality
        Quantiser,       ///< the generic fixed quantiser
        BitsPerChannel,  ///< bits per second, times the number of channels
    };
    Kind kind;
    const char* option;
    double worst;
    double best;
    double standard;  ///< used for quality 0
};

/// One of FFmpeg's encoders, with the settings that make it useful. One row per encoder.
struct Encoder {
    const char* name;
    QualityScale quality;
    const char* options;    ///< "key=value:…" of the encoder, before those of the request
    bool hasBitRate;        ///< whether a bit rate may be asked for
    bool keepsInterlacing;  ///< can encode fields and flag them as such
};

/// A codec that can be asked for. One row per four-character code; the first encoder that works is taken.
struct Codec {
    std::uint32_t fourCC;
    AVMediaType type;
    AVCodecID id;
    const char* displayName;
    std::array<const char*, 2> encoders;
    const char* options;                        ///< "key=value:…" that make this code's variant
    std::array<AVPixelFormat, 2> pixelFormats;  ///< for sources of 8 bits and of more; NONE for sound
    AVPixelFormat alphaPixelFormat;             ///< for sources with transparency; NONE: it is lost
    std::span<const std::uint64_t> layouts;     ///< channel layouts that may be used; empty: those of FFmpeg's encoder
    std::uint32_t quickTimeTag;  ///< tag in the mov family where FFmpeg would choose another; 0: FFmpeg's
};

/// All rows.
[[nodiscard]] std::span<const Codec> codecs() noexcept;

/// The row of a code. Throws Failure with UnsupportedCodec or WrongKindOfCodec.
[[nodiscard]] const Codec& codecForFourCC(std::uint32_t code, AVMediaType type);

/// The row with which sound or pictures are encoded again as what they are; null if there is none.
[[nodiscard]] const Codec* codecLike(const AVCodecParameters& parameters) noexcept;

/// The row of an encoder by FFmpeg's name, which must be one of those named in a Codec.
[[nodiscard]] const Encoder& encoderNamed(std::string_view name);

/// The number that the encoder's scale gives for a quality in [0, 1], 0 meaning the standard one.
[[nodiscard]] double scaledQuality(const QualityScale& scale, double quality) noexcept;

}  // namespace krv::media
