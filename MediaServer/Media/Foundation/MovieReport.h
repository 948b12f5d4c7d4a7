#pragma once

#include <optional>
#include <vector>

namespace krv::media {

/// What is worth knowing about a movie that has been written.
struct MovieReport {
    /// For each source, where it ends because its file was cut off (see Source::truncatedAt()). Empty if it is whole.
    std::vector<std::optional<double>> truncatedAt;
};

}  // namespace krv::media
