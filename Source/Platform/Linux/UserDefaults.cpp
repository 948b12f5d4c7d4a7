#include <cstdlib>
#include <map>
#include <utility>
#include <vector>

#include <glib.h>

#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Platform/Bundle.h>
#include <KRVQTProcessClient/Platform/DefaultsText.h>
#include <KRVQTProcessClient/Platform/UserDefaults.h>

#include "SmallFile.h"

namespace krv {
namespace {

constexpr std::size_t kMaximumFile = std::size_t{1} << 20;
constexpr std::size_t kLongestCommandLine = std::size_t{8} << 20;
constexpr const char* kGroup = "Defaults";
constexpr const char* kFile = "defaults.ini";
constexpr std::string_view kSharedIdentifier = "KRVQTProcessClient";

using Settings = std::map<std::string, std::string, std::less<>>;

Settings settingsOfThisProcess() {
    const std::string text = readSmallFile("/proc/self/cmdline", kLongestCommandLine).value_or("");
    std::vector<std::string> arguments;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\0', begin), text.size());
        arguments.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    if (!arguments.empty()) {
        arguments.erase(arguments.begin());
    }
    return settingsFromArguments(arguments);
}

/// Returns the user's configuration directory, empty if there is none. Read at every call, like the files in it.
std::string configurationDirectory() {
    const char* directory = std::getenv("XDG_CONFIG_HOME");
    if (directory && *directory == '/') {
        return directory;  // the base-directory standard says to ignore a relative one
    }
    const char* home = g_get_home_dir();
    return home ? std::string(home) + "/.config" : std::string();
}

/// Returns whether the identifier is a valid name of a directory, and not a path that leads elsewhere.
bool isFileName(std::string_view identifier) {
    return !identifier.empty() && identifier != "." && identifier != ".." &&
           identifier.find('/') == std::string_view::npos && identifier.find('\0') == std::string_view::npos;
}

std::optional<std::string> stringInFile(std::string_view identifier, const std::string& key) {
    const std::string directory = configurationDirectory();
    if (directory.empty() || !isFileName(identifier)) {
        return std::nullopt;
    }
    const auto contents = readSmallFile(directory + '/' + std::string(identifier) + '/' + kFile, kMaximumFile);
    if (!contents) {
        return std::nullopt;
    }
    const std::unique_ptr<GKeyFile, decltype(&g_key_file_unref)> file(g_key_file_new(), g_key_file_unref);
    if (!g_key_file_load_from_data(file.get(), contents->data(), contents->size(), G_KEY_FILE_NONE, nullptr)) {
        return std::nullopt;
    }
    const std::unique_ptr<char, decltype(&g_free)> value(
        g_key_file_get_string(file.get(), kGroup, key.c_str(), nullptr), g_free);
    return value ? std::optional<std::string>(value.get()) : std::nullopt;
}

}  // namespace

struct UserDefaults::State {
    const Settings arguments = settingsOfThisProcess();
    mutable Mutex mutex;
    Settings values KRV_GUARDED_BY(mutex);
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
    if (const auto it = state_->arguments.find(key); it != state_->arguments.end()) {
        return it->second;
    }
    std::string domain;
    {
        const LockGuard lock(state_->mutex);
        if (const auto it = state_->values.find(key); it != state_->values.end()) {
            return it->second;
        }
        domain = state_->domain;
    }
    if (domain.empty()) {
        domain = Bundle::main().bundleIdentifier().value_or(std::string());
    }
    const std::string name(key);
    auto value = stringInFile(domain, name);
    return value ? value : stringInFile(kSharedIdentifier, name);
}

std::int64_t UserDefaults::integerForKey(std::string_view key) const {
    return integerFromSetting(stringForKey(key).value_or(std::string()));
}

void UserDefaults::setString(std::string_view key, std::string value) {
    const LockGuard lock(state_->mutex);
    state_->values.insert_or_assign(std::string(key), std::move(value));
}

void UserDefaults::removeKey(std::string_view key) {
    const LockGuard lock(state_->mutex);
    if (const auto it = state_->values.find(key); it != state_->values.end()) {
        state_->values.erase(it);
    }
}

void UserDefaults::setDomain(std::string identifier) {
    const LockGuard lock(state_->mutex);
    state_->domain = std::move(identifier);
}

}  // namespace krv
