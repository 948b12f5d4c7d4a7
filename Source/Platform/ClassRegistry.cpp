#include <utility>

#include <KRVQTProcessClient/Platform/ClassRegistry.h>

namespace krv {

ClassRegistry::ClassRegistry() = default;
ClassRegistry::~ClassRegistry() = default;

ClassRegistry& ClassRegistry::shared() {
    static auto* instance = new ClassRegistry;
    return *instance;
}

void ClassRegistry::registerClass(std::string_view name, Bundle bundle) {
    bundles_.with([&](Bundles& bundles) { bundles.insert_or_assign(std::string(name), std::move(bundle)); });
}

void ClassRegistry::unregisterClass(std::string_view name) {
    bundles_.with([name](Bundles& bundles) {
        if (const auto place = bundles.find(name); place != bundles.end()) {
            bundles.erase(place);
        }
    });
}

std::optional<Bundle> ClassRegistry::bundleForClass(std::string_view name) const {
    return bundles_.with([name](const Bundles& bundles) {
        const auto place = bundles.find(name);
        return place == bundles.end() ? std::nullopt : std::optional(place->second);
    });
}

}  // namespace krv
