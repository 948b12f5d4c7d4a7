#pragma once

#include <string>
#include <string_view>

namespace krv::media {

/// A font file in memory, borrowed.
struct Font {
    std::string_view data;  ///< the bytes of the file; empty: there is none
    std::string family;     ///< its name in the file
};

}  // namespace krv::media
