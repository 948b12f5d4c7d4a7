#include "Spelling.h"

#include <algorithm>

#include <fmt/format.h>

namespace krvqt {

std::size_t editDistance(std::string_view one, std::string_view other) {
    std::vector<std::size_t> beforeLast(other.size() + 1);
    std::vector<std::size_t> last(other.size() + 1);
    std::vector<std::size_t> row(other.size() + 1);
    for (std::size_t j = 0; j <= other.size(); ++j) {
        row[j] = j;
    }
    for (std::size_t i = 1; i <= one.size(); ++i) {
        std::swap(beforeLast, last);
        std::swap(last, row);
        row[0] = i;
        for (std::size_t j = 1; j <= other.size(); ++j) {
            const std::size_t replaced = last[j - 1] + (one[i - 1] == other[j - 1] ? 0 : 1);
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, replaced});
            if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1]) {
                row[j] = std::min(row[j], beforeLast[j - 2] + 1);
            }
        }
    }
    return row.back();
}

std::string closest(std::string_view word, const std::vector<std::string>& candidates) {
    constexpr std::size_t kLettersPerMistake = 3;
    std::string best;
    std::size_t fewest = 0;
    for (const std::string& candidate : candidates) {
        const std::size_t distance = editDistance(word, candidate);
        if (distance <= std::max<std::size_t>(candidate.size() / kLettersPerMistake, 1) &&
            (best.empty() || distance < fewest)) {
            best = candidate;
            fewest = distance;
        }
    }
    if (best.empty() && word.find_first_not_of('-') != std::string_view::npos) {
        const auto longer = std::find_if(candidates.begin(), candidates.end(),
                                         [&](const std::string& each) { return each.starts_with(word); });
        best = longer == candidates.end() ? std::string() : *longer;
    }
    return best;
}

std::string didYouMean(std::string_view word, const std::vector<std::string>& candidates) {
    const std::string meant = closest(word, candidates);
    return meant.empty() ? std::string() : fmt::format("; did you mean '{}'?", meant);
}

}  // namespace krvqt
