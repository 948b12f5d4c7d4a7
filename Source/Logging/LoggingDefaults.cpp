#include <KRVQTProcessClient/Logging/Logging.h>
#include <KRVQTProcessClient/Logging/LoggingDefaults.h>
#include <KRVQTProcessClient/Platform/UserDefaults.h>

namespace krv {

void applyLoggingDefaults() {
    const UserDefaults& defaults = UserDefaults::standard();
    const auto apply = [&defaults](std::string_view key, const auto& set) {
        if (!defaults.stringForKey(key)) {
            return false;
        }
        set(defaults.integerForKey(key));
        return true;
    };
    bool asked = false;
    asked |=
        apply("qtClientLogLevel", [](std::int64_t level) { qtClientLogLevel = static_cast<std::uint32_t>(level); });
    asked |= apply("applicationLogLevel",
                   [](std::int64_t level) { applicationLogLevel = static_cast<std::uint32_t>(level); });
    apply("additionalApplicationLogLevel",
          [](std::int64_t mask) { additionalApplicationLogLevel = static_cast<std::uint32_t>(mask); });
    apply("quicktimeLoggingLevel",
          [](std::int64_t level) { Logging::setQuicktimeLoggingLevel(static_cast<std::int32_t>(level)); });
    const bool decided = apply("krv_loggingEnabled", [](std::int64_t enabled) { krv_loggingEnabled = enabled != 0; });
    if (asked && !decided) {
        krv_loggingEnabled = true;
    }
}

}  // namespace krv
