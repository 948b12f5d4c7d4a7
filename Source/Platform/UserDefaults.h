#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// Settings by key, read afresh at every call. The first place that has the key wins:
///   1. the process's arguments up to "--", as "-key value"; a value may begin with "-" only as a negative number, a
///      key never with a second "-" or a digit, and of two values for one key the later one stays;
///   2. values that the application has set with setString;
///   3. $XDG_CONFIG_HOME/IDENTIFIER/defaults.ini, group "Defaults", with the main bundle's identifier;
///   4. $XDG_CONFIG_HOME/KRVQTProcessClient/defaults.ini, group "Defaults".
/// XDG_CONFIG_HOME is ~/.config when it is unset. A file that is missing, unreadable or damaged counts as
/// empty.
///
/// Thread-safe.
class KRV_EXPORT UserDefaults {
public:
    /// The process's defaults. Lives as long as the process.
    [[nodiscard]] static UserDefaults& standard();

    [[nodiscard]] std::optional<std::string> stringForKey(std::string_view key) const;
    /// The leading integer of the text, after spaces and a sign, held within 64 bits. 0 for a missing key and
    /// for text that does not begin with a number; YES and true (any case) read as 1.
    [[nodiscard]] std::int64_t integerForKey(std::string_view key) const;

    void setString(std::string_view key, std::string value);
    void removeKey(std::string_view key);

    /// The identifier whose file is read in step 3. Empty means the application's own bundle identifier
    /// (see Bundle::main). One that cannot be the name of a directory has no file. The media server sets the identifier
    /// of the application that started it.
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
