#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include <MediaServer/Media/Container/Language.h>

namespace krv::media {

std::string quickTimeLanguage(const std::string& code) {
    // clang-format off
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 23> kForms{{
        {"bod", "tib"}, {"cym", "wel"}, {"cze", "ces"}, {"deu", "ger"}, {"ell", "gre"}, {"eus", "baq"},
        {"fao", "fo "}, {"fre", "fra"}, {"hrv", "hr "}, {"hye", "arm"}, {"isl", "ice"}, {"kat", "geo"},
        {"mkd", "mac"}, {"msa", "may"}, {"mya", "bur"}, {"nld", "dut"}, {"pan", "pa "}, {"rum", "ron"},
        {"slo", "slk"}, {"sqi", "alb"}, {"srp", "sr "}, {"swe", "sve"}, {"zho", "chi"},
    }};
    // clang-format on
    const auto* found =
        std::find_if(kForms.begin(), kForms.end(), [&](const auto& form) { return form.first == code; });
    return found == kForms.end() ? code : std::string(found->second);
}

}  // namespace krv::media
