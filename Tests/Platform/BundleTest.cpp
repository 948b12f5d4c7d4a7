#include <filesystem>

#include <dlfcn.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Platform/Bundle.h>
#include <KRVQTProcessClient/Platform/Linux/BundlePaths.h>

#include "ChildProcess.h"
#include "TemporaryFolder.h"

namespace krv {
namespace {

namespace fs = std::filesystem;

/// Returns the output of a copy of the probe at that path.
std::string ask(const std::string& probe, const std::string& question, const std::string& argument) {
    test::ChildProcess process({probe, question, argument});
    return process.readLine().value_or("no answer");
}

class BundleTest : public testing::Test {
protected:
    [[nodiscard]] std::string copyProbeTo(const fs::path& place) const {
        const fs::path path = folder_.path() / place;
        fs::create_directories(path.parent_path());
        fs::copy_file(KRV_PLATFORM_PROBE, path);
        return path.string();
    }
    [[nodiscard]] std::string in(const fs::path& place) const { return (folder_.path() / place).string(); }
    [[nodiscard]] Bundle bundle() const { return Bundle({folder_.path().string()}); }

    test::TemporaryFolder folder_;
};

TEST_F(BundleTest, TheMainBundleIsTheEnclosingApplication) {
    EXPECT_EQ(ask(copyProbeTo("Editor.app/Contents/MacOS/Editor"), "bundle", ""), in("Editor.app"));
}

TEST_F(BundleTest, TheMainBundleIsTheExecutablesDirectoryOtherwise) {
    EXPECT_EQ(ask(copyProbeTo("bin/editor"), "bundle", ""), in("bin"));
}

TEST_F(BundleTest, OnlyACompleteApplicationPathCounts) {
    EXPECT_EQ(bundleDirectoryOfExecutable("/x/E.app/Contents/MacOS/E"), "/x/E.app");
    EXPECT_EQ(bundleDirectoryOfExecutable("/x/E/Contents/MacOS/E"), "/x/E/Contents/MacOS");
    EXPECT_EQ(bundleDirectoryOfExecutable("/x/E.app/MacOS/E"), "/x/E.app/MacOS");
    EXPECT_EQ(bundleDirectoryOfExecutable("/x/E.app/Contents/Helpers/E"), "/x/E.app/Contents/Helpers");
    EXPECT_EQ(bundleDirectoryOfExecutable("/E"), "/");
}

TEST_F(BundleTest, ResourcesAreSearchedInContentsThenResourcesThenTheDirectoryItself) {
    EXPECT_EQ(bundle().pathForResource("Server", "app"), std::nullopt);
    folder_.write("Server.app/x", "");
    EXPECT_EQ(bundle().pathForResource("Server", "app"), in("Server.app"));
    folder_.write("Resources/Server.app/x", "");
    EXPECT_EQ(bundle().pathForResource("Server", "app"), in("Resources/Server.app"));
    folder_.write("Contents/Resources/Server.app/x", "");
    EXPECT_EQ(bundle().pathForResource("Server", "app"), in("Contents/Resources/Server.app"));
}

TEST_F(BundleTest, AResourceWithoutATypeIsItsNameOnly) {
    folder_.write("Resources/readme", "");
    EXPECT_EQ(bundle().pathForResource("readme", ""), in("Resources/readme"));
    EXPECT_EQ(bundle().pathForResource("", ""), std::nullopt);
}

TEST_F(BundleTest, AuxiliaryExecutablesAreSearchedInContentsThenTheDirectoryItself) {
    folder_.write("Resources/helper", "");
    EXPECT_EQ(bundle().pathForAuxiliaryExecutable("helper"), std::nullopt);
    folder_.write("helper", "");
    EXPECT_EQ(bundle().pathForAuxiliaryExecutable("helper"), in("helper"));
    folder_.write("Contents/MacOS/helper", "");
    EXPECT_EQ(bundle().pathForAuxiliaryExecutable("helper"), in("Contents/MacOS/helper"));
}

TEST_F(BundleTest, ItsDirectoriesAreSearchedInOrder) {
    const Bundle both({in("one"), in("two")});
    EXPECT_EQ(both.path(), in("one"));
    folder_.write("two/Contents/Resources/a.txt", "");
    EXPECT_EQ(both.pathForResource("a", "txt"), in("two/Contents/Resources/a.txt"));
    folder_.write("one/a.txt", "");
    EXPECT_EQ(both.pathForResource("a", "txt"), in("one/a.txt"));
}

TEST_F(BundleTest, TheBundleOfAFunctionOfTheProgramIsTheProgramsDirectory) {
    static const int inThisProgram = 0;
    const auto found = Bundle::containing(&inThisProgram);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->path(), fs::read_symlink("/proc/self/exe").parent_path().string());
}

TEST_F(BundleTest, TheBundleOfAFunctionOfALibraryIsTheLibrarysDirectory) {
    // Looked up by name, because the address of a library function, taken in the program, may lie in the program.
    const auto found = Bundle::containing(::dlsym(RTLD_DEFAULT, "g_get_user_name"));
    ASSERT_TRUE(found);
    EXPECT_TRUE(fs::exists(found->path() + "/libglib-2.0.so.0")) << found->path();
}

TEST_F(BundleTest, AnAddressOutsideEveryFileHasNoBundle) {
    const int onTheStack = 0;
    EXPECT_FALSE(Bundle::containing(&onTheStack));
    EXPECT_FALSE(Bundle::containing(nullptr));
}

constexpr const char* kInfo = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Example//DTD PLIST 1.0//EN" "http://localhost/PropertyList-1.0.dtd">
<plist version="1.0"><dict>
    <key>CFBundleName</key><string>Editor</string>
    <key>CFBundleIdentifier</key><string>org.example.Editor</string>
</dict></plist>)";

TEST_F(BundleTest, TheIdentifierIsReadFromTheInfoFile) {
    EXPECT_EQ(bundle().bundleIdentifier(), std::nullopt);
    folder_.write("Contents/Info.plist", kInfo);
    EXPECT_EQ(bundle().bundleIdentifier(), "org.example.Editor");
}

TEST_F(BundleTest, ADamagedOrVeryLongInfoFileIsIgnored) {
    folder_.write("Contents/Info.plist", std::string_view(kInfo).substr(0, std::string_view(kInfo).size() - 1));
    EXPECT_EQ(bundle().bundleIdentifier(), std::nullopt);
    folder_.write("Contents/Info.plist", kInfo + std::string(2 << 20, ' '));
    EXPECT_EQ(bundle().bundleIdentifier(), std::nullopt);
}

TEST_F(BundleTest, TheInfoFilesIdentifierComesBeforeTheApplicationObjects) {
    const std::string probe = copyProbeTo("Editor.app/Contents/MacOS/Editor");
    EXPECT_EQ(ask(probe, "identifier", ""), "(none)");
    EXPECT_EQ(ask(probe, "application", "org.example.Object"), "org.example.Object");
    folder_.write("Editor.app/Contents/Info.plist", kInfo);
    EXPECT_EQ(ask(probe, "application", "org.example.Object"), "org.example.Editor");
}

TEST_F(BundleTest, TheApplicationsIdentifierIsUsedIfThereIsNoOther) {
    EXPECT_EQ(Bundle::main().bundleIdentifier(), std::nullopt);
    Bundle::setApplicationIdentifier("org.example.Tests");
    EXPECT_EQ(Bundle::main().bundleIdentifier(), "org.example.Tests");
    EXPECT_EQ(bundle().bundleIdentifier(), std::nullopt);
    Bundle::setApplicationIdentifier("");
    EXPECT_EQ(Bundle::main().bundleIdentifier(), std::nullopt);
}

}  // namespace
}  // namespace krv
