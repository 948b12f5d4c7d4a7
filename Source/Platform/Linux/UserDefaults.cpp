#include <KRVQTProcessClient/Platform/UserDefaults.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <vector>

#include <gio/gio.h>

#include <KRVQTProcessClient/Foundation/Mutex.h>

namespace krv {
namespace {

constexpr const char* kGroup = "Defaults";
constexpr const char* kFile = "defaults.ini";
constexpr const char* kLibrarysOwn = "KRVQTProcessClient";

/// The "-key value" pairs of this process's command line.
std::map<std::string, std::string, std::less<>> argumentsOfProcess() {
    std::ifstream in("/proc/self/cmdline", std::ios::binary);
    const std::string all{std::istreambuf_iterator<char>(in), {}};
    std::vector<std::string> words;
    for (std::size_t begin = 0; begin < all.size();) {
        const std::size_t end = std::min(all.find('\0', begin), all.size());
        words.push_back(all.substr(begin, end - begin));
        begin = end + 1;
    }
    std::map<std::string, std::string, std::less<>> pairs;
    for (std::size_t i = 1; i + 1 < words.size(); ++i) {
        if (words[i].size() > 1 && words[i][0] == '-' && words[i][1] != '-') {
            pairs.emplace(words[i].substr(1), words[i + 1]);
            ++i;
        }
    }
    return pairs;
}

std::string configurationFolder() {
    const char* const xdg = std::getenv("XDG_CONFIG_HOME");
    if (xdg && xdg[0] == '/') {
        return xdg;
    }
    const char* const home = std::getenv("HOME");
    return std::string(home ? home : "") + "/.config";
}

std::optional<std::string> valueInFile(const std::string& identifier, std::string_view key) {
    if (identifier.empty() || identifier.find('/') != std::string::npos) {
        return std::nullopt;
    }
    const std::string path = configurationFolder() + "/" + identifier + "/" + kFile;
    GKeyFile* const file = g_key_file_new();
    std::optional<std::string> value;
    if (g_key_file_load_from_file(file, path.c_str(), G_KEY_FILE_NONE, nullptr)) {
        if (char* const text = g_key_file_get_string(file, kGroup, std::string(key).c_str(), nullptr)) {
            value = text;
            g_free(text);
        }
    }
    g_key_file_free(file);
    return value;
}

std::string applicationIdentifier() {
    GApplication* const application = g_application_get_default();
    const char* const identifier = application ? g_application_get_application_id(application) : nullptr;
    return identifier ? identifier : "";
}

}  // namespace

struct UserDefaults::State {
    const std::map<std::string, std::string, std::less<>> arguments = argumentsOfProcess();
    mutable Mutex mutex;
    std::map<std::string, std::string, std::less<>> values KRV_GUARDED_BY(mutex);
    std::string domain KRV_GUARDED_BY(mutex);
};

UserDefaults::UserDefaults()
    : state_(std::make_unique<State>()) {}

UserDefaults::~UserDefaults() = default;

UserDefaults& UserDefaults::standard() {
    static auto* defaults = new UserDefaults;
    return *defaults;
}

std::optional<std::string> UserDefaults::stringForKey(std::string_view key) const {
    if (const auto place = state_->arguments.find(key); place != state_->arguments.end()) {
        return place->second;
    }
    std::string domain;
    {
        const LockGuard lock(state_->mutex);
        if (const auto place = state_->values.find(key); place != state_->values.end()) {
            return place->second;
        }
        domain = state_->domain;
    }
    if (auto value = valueInFile(domain.empty() ? applicationIdentifier() : domain, key)) {
        return value;
    }
    return valueInFile(kLibrarysOwn, key);
}

std::int64_t UserDefaults::integerForKey(std::string_view key) const {
    const auto text = stringForKey(key);
    if (!text) {
        return 0;
    }
    std::string word = *text;
    word.erase(0, std::min(word.find_first_not_of(" \t"), word.size()));
    std::string lower = word;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (lower == "yes" || lower == "true") {
        return 1;
    }
    const bool plus = !word.empty() && word[0] == '+';
    const char* const begin = word.data() + (plus ? 1 : 0);
    std::int64_t value = 0;
    const auto [end, failure] = std::from_chars(begin, word.data() + word.size(), value);
    if (failure == std::errc::result_out_of_range) {
        return *begin == '-' ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
    }
    return failure == std::errc() ? value : 0;
}

void UserDefaults::setString(std::string_view key, std::string value) {
    const LockGuard lock(state_->mutex);
    state_->values.insert_or_assign(std::string(key), std::move(value));
}

void UserDefaults::removeKey(std::string_view key) {
    const LockGuard lock(state_->mutex);
    if (const auto place = state_->values.find(key); place != state_->values.end()) {
        state_->values.erase(place);
    }
}

void UserDefaults::setDomain(std::string identifier) {
    const LockGuard lock(state_->mutex);
    state_->domain.swap(identifier);
}

}  // namespace krv
