#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Guarded.h>
#include <KRVQTProcessClient/Platform/Bundle.h>

namespace krv {

/// The named classes that are loaded in this process, each with its bundle.
///
/// A plug-in or framework that contains resources for others, such as a media server, registers one of its classes
/// under a name that both sides know. Thread-safe.
class KRV_EXPORT ClassRegistry {
public:
    ClassRegistry();
    ~ClassRegistry();
    /// Returns the process's registry. Never destroyed.
    [[nodiscard]] static ClassRegistry& shared();

    /// Registers a class with the bundle that contains it. Replaces the bundle of a name that is already registered.
    void registerClass(std::string_view name, Bundle bundle);
    /// Removes a class whose bundle is unloaded. Does nothing for an unknown name.
    void unregisterClass(std::string_view name);
    /// Returns the bundle of a loaded class, or nothing if no class of that name is loaded.
    [[nodiscard]] std::optional<Bundle> bundleForClass(std::string_view name) const;

private:
    using Bundles = std::map<std::string, Bundle, std::less<>>;
    Guarded<Bundles> bundles_;
};

}  // namespace krv
