#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Jobs/Progress.h>

namespace krv {

/// One thing that diagnose() has examined.
struct Check {
    enum class State : std::uint8_t {
        Good,
        Warning,  ///< something is missing that conversions do not depend on
        Problem,  ///< conversions fail until it is mended
        Unknown,  ///< could not be examined
    };
    /// A short name that never changes, such as "bundle".
    std::string name{};
    State state = State::Good;
    /// A sentence for a person.
    std::string finding{};
    /// A remedy; empty if none is needed.
    std::string suggestion{};

    /// Returns the name of a state, such as "good". For results in text form.
    [[nodiscard]] KRV_EXPORT static std::string_view nameOf(State state) noexcept;
};

struct Diagnosis {
    /// Whether a conversion that was tried has succeeded.
    bool works = false;
    /// Named, in this order: "version", "bundle", "processes", "runtime-folder", "service-record", "ports", "multicast",
    /// "system-bus", "server", "registration", "sandbox", "conversion".
    std::vector<Check> checks{};
};

/// Finds out what a conversion depends on, and tries one: a moment of silence, in the user's runtime folder. As every job
/// does, it launches a server if none is running.
///
/// Blocks until the conversion has ended, for which a server has the given time to respond. On the main thread it runs the
/// main run loop meanwhile. Throws what the constructor of Media throws.
[[nodiscard]] KRV_EXPORT Diagnosis diagnose(Seconds patience = Seconds{20});

}  // namespace krv
