#include <algorithm>
#include <array>
#include <cctype>
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

bool sameLanguage(const std::string& one, const std::string& other) {
    // The forms of a language: by its own name, by its English name, in two letters.
    using Forms = std::array<std::string_view, 3>;
    // clang-format off
    static constexpr std::array<Forms, 54> kLanguages{{
        {"ara", "ara", "ar"}, {"ben", "ben", "bn"}, {"bod", "tib", "bo"}, {"bul", "bul", "bg"}, {"cat", "cat", "ca"},
        {"ces", "cze", "cs"}, {"cym", "wel", "cy"}, {"dan", "dan", "da"}, {"deu", "ger", "de"}, {"ell", "gre", "el"},
        {"eng", "eng", "en"}, {"est", "est", "et"}, {"eus", "baq", "eu"}, {"fas", "per", "fa"}, {"fin", "fin", "fi"},
        {"fra", "fre", "fr"}, {"gle", "gle", "ga"}, {"heb", "heb", "he"}, {"hin", "hin", "hi"}, {"hrv", "scr", "hr"},
        {"hun", "hun", "hu"}, {"hye", "arm", "hy"}, {"ind", "ind", "id"}, {"isl", "ice", "is"}, {"ita", "ita", "it"},
        {"jpn", "jpn", "ja"}, {"kat", "geo", "ka"}, {"kor", "kor", "ko"}, {"lat", "lat", "la"}, {"lav", "lav", "lv"},
        {"lit", "lit", "lt"}, {"mkd", "mac", "mk"}, {"msa", "may", "ms"}, {"mya", "bur", "my"}, {"nld", "dut", "nl"},
        {"nor", "nor", "no"}, {"pol", "pol", "pl"}, {"por", "por", "pt"}, {"ron", "rum", "ro"}, {"rus", "rus", "ru"},
        {"slk", "slo", "sk"}, {"slv", "slv", "sl"}, {"spa", "spa", "es"}, {"sqi", "alb", "sq"}, {"srp", "scc", "sr"},
        {"swe", "swe", "sv"}, {"tam", "tam", "ta"}, {"tel", "tel", "te"}, {"tha", "tha", "th"}, {"tur", "tur", "tr"},
        {"ukr", "ukr", "uk"}, {"urd", "urd", "ur"}, {"vie", "vie", "vi"}, {"zho", "chi", "zh"},
    }};
    // clang-format on
    const auto lower = [](std::string text) {
        std::transform(text.begin(), text.end(), text.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        return text;
    };
    const std::string a = lower(one), b = lower(other);
    const auto has = [](const Forms& forms, const std::string& code) {
        return std::find(forms.begin(), forms.end(), code) != forms.end();
    };
    return a == b || std::any_of(kLanguages.begin(), kLanguages.end(),
                                 [&](const Forms& forms) { return has(forms, a) && has(forms, b); });
}

}  // namespace krv::media
