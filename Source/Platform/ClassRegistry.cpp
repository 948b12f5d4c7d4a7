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
    const LockGuard lock(mutex_);
    bundles_.insert_or_assign(std::string(name), std::move(bundle));
}

void ClassRegistry::unregisterClass(std::string_view name) {
    const LockGuard lock(mutex_);
    if (const auto place = bundles_.find(name); place != bundles_.end()) {
        bundles_.erase(place);
    }
}

std::optional<Bundle> ClassRegistry::bundleForClass(std::string_view name) const {
    const LockGuard lock(mutex_);
    const auto place = bundles_.find(name);
    return place == bundles_.end() ? std::nullopt : std::optional(place->second);
}

}  // namespace krv
