#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Operations/VideoConversion.h>

/// The names that people use for codecs and encoding types.
namespace krv {

/// A codec that the media server encodes.
struct CodecName {
    /// Four-character code, without spaces at its end.
    std::string_view code;
    /// The common name, or the code if the codec has none.
    std::string_view name;
    /// For people, such as "H.264".
    std::string_view title;
    bool isVideo;
};
[[nodiscard]] KRV_EXPORT std::span<const CodecName> codecNames() noexcept;

/// A container that the media server writes.
struct ContainerName {
    /// In lower case, without the dot.
    std::string_view extension;
    /// The codes of its default codecs; empty if it holds no such tracks.
    std::string_view video;
    std::string_view audio;
};
[[nodiscard]] KRV_EXPORT std::span<const ContainerName> containerNames() noexcept;

/// Returns a codec as the integer that a record carries, the first character in the highest byte. Takes a common name in
/// any case ("h264", "hevc", "aac", ...) or a four-character code, which is padded with spaces. Nothing if the text is
/// empty or neither.
[[nodiscard]] KRV_EXPORT std::optional<std::uint32_t> codecFromName(std::string_view name);

/// Returns the encoding type with this name ("H.264"), common name ("h265", "prores", "audio") or number. Names are taken
/// in any case. Nothing for any other text.
[[nodiscard]] KRV_EXPORT std::optional<VideoConversion::Type> encodingTypeFromName(std::string_view nameOrNumber);

/// The codecs that an encoding type stands for, as records carry them. 0: the container's default.
struct TypeCodecs {
    std::uint32_t video;
    std::uint32_t audio;
};

/// Returns the codecs of a type, so that settings can refine it. Nothing for "Original", which copies.
[[nodiscard]] KRV_EXPORT std::optional<TypeCodecs> codecsOfType(VideoConversion::Type type);

/// Returns whether the extension of a destination is that of a container for audio only.
[[nodiscard]] KRV_EXPORT bool holdsAudioOnly(std::string_view destination);

/// Returns the default type for a destination: H.264, or by the extension where the container does not hold H.264, or not
/// as well as its own codec.
[[nodiscard]] KRV_EXPORT VideoConversion::Type defaultEncodingType(std::string_view destination);

}  // namespace krv
