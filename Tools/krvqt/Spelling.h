#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace krvqt {

/// Returns how many letters have to be inserted, removed, replaced or exchanged with their neighbour to make one word
/// of the other. No letter is changed twice.
[[nodiscard]] std::size_t editDistance(std::string_view one, std::string_view other);

/// Returns the candidate that somebody who typed this word may have meant: the nearest one, if it differs by about a
/// third of its letters at most, or the first one that begins with the word. Empty if there is none.
[[nodiscard]] std::string closest(std::string_view word, const std::vector<std::string>& candidates);

/// Returns "; did you mean 'candidate'?", empty if there is no such candidate.
[[nodiscard]] std::string didYouMean(std::string_view word, const std::vector<std::string>& candidates);

}  // namespace krvqt
