#pragma once

#include <cstdint>
#include <span>

namespace krv::media {

/// What a request's encodingType means. One row per type.
struct EncodingType {
    enum class Codec {
        Copy,       ///< copied if the container can hold it, else the container's default codec
        Settings,   ///< the codec of the request, else the container's default codec
        Fixed,      ///< the codec of the row
        Preferred,  ///< the codec of the row if the container can hold it, else the container's default codec
        None,       ///< dropped
    };
    std::int32_t number;
    const char* name;
    Codec video;
    std::uint32_t videoCodec;
    Codec audio;
    std::uint32_t audioCodec;
};

/// Returns all rows.
[[nodiscard]] std::span<const EncodingType> encodingTypes() noexcept;

/// Returns the row of a number. Throws Failure with UnsupportedEncodingType.
[[nodiscard]] const EncodingType& encodingTypeNumbered(std::int32_t number);

}  // namespace krv::media
