#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace krvqt {

/// One job of a list.
struct BatchJob {
    /// The line of the list that it is on, from 1.
    std::size_t line = 0;
    /// "convert", "flatten", "mux", "merge", "thumbnails", "info" or "times".
    std::string command{};
    /// Absolute paths.
    std::vector<std::string> sources{};
    /// Absolute path; empty for a job that writes no file.
    std::string destination{};
    /// Whether an existing destination is replaced.
    bool force = false;
    /// The whole job in a form that is the same for the same work: absolute paths, keys in order.
    nlohmann::json description{};
};

struct BatchList {
    std::vector<BatchJob> jobs{};
    /// How many lines there are.
    std::size_t lines = 0;
    /// What is wrong with it: complete sentences that name the lines. If there are any, no job may be started.
    std::vector<std::string> problems{};
};

/// Reads a list of jobs, one JSON object per line. Blank lines are skipped. Relative names are those of files in
/// `folder`.
///
/// Checks each job as far as that is possible without its files, and that no two jobs write the same file, and none
/// reads what another one writes.
[[nodiscard]] BatchList parseBatchList(std::string_view text, const std::filesystem::path& folder);

}  // namespace krvqt
