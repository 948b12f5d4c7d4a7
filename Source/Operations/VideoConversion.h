#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// The encoding types of a conversion: their numbers and names in client, server and krvqt.
class KRV_EXPORT VideoConversion {
public:
    enum Type : std::int32_t {
        Original = 0,
        H264 = 1,
        HEVC = 2,
        Custom = 3,
        ProRes422 = 4,
        VP9 = 5,
        AV1 = 6,
        AudioOnly = 7
    };

    struct TypeInfo {
        Type type;
        /// For people, such as "H.264".
        std::string_view name;
        /// A short description of the output.
        std::string_view meaning;
    };

    /// Returns all types in ascending order.
    [[nodiscard]] static const std::array<TypeInfo, 8>& types() noexcept;

    /// Returns the name for people, or "Unknown" if the number is not a type.
    [[nodiscard]] static std::string_view nameForType(std::int32_t type) noexcept;
};

}  // namespace krv
