#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// Settings by key, read at every call. The first place that has the key wins:
///   1. the process's arguments before "--", as "-key value"; a value may start with "-" only if it is a negative
///      number, a key never starts with a second "-" or a digit, and the last value of a key wins;
///   2. values that the application has set with setString;
///   3. $XDG_CONFIG_HOME/IDENTIFIER/defaults.ini, group "Defaults", with the main bundle's identifier;
///   4. $XDG_CONFIG_HOME/KRVQTProcessClient/defaults.ini, group "Defaults".
/// XDG_CONFIG_HOME defaults to ~/.config. A missing, unreadable or damaged file counts as empty.
///
/// Thread-safe.
class KRV_EXPORT UserDefaults {
public:
    /// Returns the process's defaults. Never destroyed.
    [[nodiscard]] static UserDefaults& standard();

    [[nodiscard]] std::optional<std::string> stringForKey(std::string_view key) const;
    /// Returns the leading integer of the text, after spaces and a sign, limited to 64 bits. YES and true (in any case)
    /// are 1. Returns 0 for a missing key and for text that does not start with a number.
    [[nodiscard]] std::int64_t integerForKey(std::string_view key) const;

    void setString(std::string_view key, std::string value);
    void removeKey(std::string_view key);

    /// Sets the identifier of step 3. Empty means the application's own bundle identifier (see Bundle::main). An
    /// identifier that is not a valid directory name has no file. The media server sets the identifier of the
    /// application that started it.
    void setDomain(std::string identifier);

    UserDefaults(const UserDefaults&) = delete;
    UserDefaults& operator=(const UserDefaults&) = delete;

private:
    UserDefaults();
    ~UserDefaults();
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace krv
