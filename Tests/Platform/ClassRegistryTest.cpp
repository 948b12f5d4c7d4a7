#include <gtest/gtest.h>

#include <KRVQTProcessClient/Platform/ClassRegistry.h>

namespace krv {
namespace {

TEST(ClassRegistry, KnowsTheBundleOfARegisteredClass) {
    ClassRegistry registry;
    registry.registerClass("KRVMedia", Bundle({"/media"}));
    const auto bundle = registry.bundleForClass("KRVMedia");
    ASSERT_TRUE(bundle);
    EXPECT_EQ(bundle->path(), "/media");
}

TEST(ClassRegistry, OtherClassesAreMissing) {
    ClassRegistry registry;
    registry.registerClass("KRVMedia", Bundle({"/media"}));
    EXPECT_FALSE(registry.bundleForClass("KRVmedia"));
    EXPECT_FALSE(registry.bundleForClass(""));
}

TEST(ClassRegistry, TheLatestRegistrationWins) {
    ClassRegistry registry;
    registry.registerClass("KRVMedia", Bundle({"/one"}));
    registry.registerClass("KRVMedia", Bundle({"/two"}));
    EXPECT_EQ(registry.bundleForClass("KRVMedia")->path(), "/two");
}

TEST(ClassRegistry, RemovesAnUnregisteredClass) {
    ClassRegistry registry;
    registry.registerClass("KRVMedia", Bundle({"/media"}));
    registry.unregisterClass("KRVMedia");
    registry.unregisterClass("KRVMedia");
    EXPECT_FALSE(registry.bundleForClass("KRVMedia"));
}

TEST(ClassRegistry, TheSharedRegistryIsASingleton) {
    EXPECT_EQ(&ClassRegistry::shared(), &ClassRegistry::shared());
}

}  // namespace
}  // namespace krv
