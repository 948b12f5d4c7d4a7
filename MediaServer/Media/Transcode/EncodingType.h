#pragma once

#include <cstdint>
#include <span>

namespace krv::media {

/// What a request's encodingType asks for. One row per type.
struct EncodingType {
    enum class Codec {
        Copy,       ///< copied where the container allows, else the container's default codec
        Settings,   ///< as the request's settings say, else the container's default codec
        Fixed,      ///< the codec of the row
        Preferred,  ///< the codec of the row where the container allows, else the container's default codec
        None,       ///< left out
    };
    std::int32_t number;
    const char* name;
    Codec video;
    std::uint32_t videoCodec;
    Codec audio;
    std::uint32_t audioCodec;
};

/// All rows.
[[nodiscard]] std::span<const EncodingType> encodingTypes() noexcept;

/// Throws Failure with UnsupportedEncodingType.
[[nodiscard]] const EncodingType& encodingTypeNumbered(std::int32_t number);

}  // namespace krv::media
