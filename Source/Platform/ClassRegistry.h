#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Guarded.h>
#include <KRVQTProcessClient/Platform/Bundle.h>

namespace krv {

/// Which named classes are loaded in this process, and the bundles that they came in.
///
/// A plug-in or framework that carries resources for others (a media server of its own, say) makes itself findable by
/// registering one of its classes under a name that both sides know. Thread-safe.
class KRV_EXPORT ClassRegistry {
public:
    ClassRegistry();
    ~ClassRegistry();
    /// The process's registry. Lives as long as the process.
    [[nodiscard]] static ClassRegistry& shared();

    /// Makes a class known, with the bundle that holds it. A name that is known already gets the new bundle.
    void registerClass(std::string_view name, Bundle bundle);
    /// For when what held the class is unloaded. Harmless for a name that is not known.
    void unregisterClass(std::string_view name);
    /// The bundle of a loaded class; absent when no class of that name is loaded.
    [[nodiscard]] std::optional<Bundle> bundleForClass(std::string_view name) const;

private:
    using Bundles = std::map<std::string, Bundle, std::less<>>;
    Guarded<Bundles> bundles_;
};

}  // namespace krv
