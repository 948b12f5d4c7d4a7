#include <array>
#include <filesystem>
#include <initializer_list>
#include <utility>

#include <dlfcn.h>

#include <fmt/format.h>
#include <gio/gio.h>
#include <link.h>

#include <KRVQTProcessClient/Foundation/Guarded.h>
#include <KRVQTProcessClient/Platform/Bundle.h>

#include "BundlePaths.h"
#include "InfoPropertyList.h"
#include "ProcessFiles.h"
#include "SmallFile.h"

namespace krv {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaximumPropertyList = std::size_t{1} << 20;
constexpr std::string_view kLibraryResources = "krvqtprocessclient";

Guarded<std::string>& applicationIdentifier() {
    static auto* instance = new Guarded<std::string>;
    return *instance;
}

std::string executablePath() {
    std::error_code failure;
    const std::string path = fs::read_symlink("/proc/self/exe", failure).string();
    // The resources of an executable that was replaced while it runs are still beside its old path.
    return fs::exists(path, failure) ? path : std::string(withoutDeletedMark(path));
}

std::optional<std::string> firstExisting(const std::vector<std::string>& directories,
                                         std::initializer_list<const char*> places, const std::string& name) {
    for (const std::string& directory : directories) {
        for (const char* place : places) {
            const fs::path path = fs::path(directory) / place / name;
            std::error_code failure;
            if (!directory.empty() && !name.empty() && fs::exists(path, failure)) {
                return path.lexically_normal().string();
            }
        }
    }
    return std::nullopt;
}

std::optional<std::string> unlessEmpty(std::optional<std::string> text) {
    return text && !text->empty() ? std::move(text) : std::nullopt;
}

std::optional<std::string> identifierFromInfoFile(const std::string& directory) {
    const auto contents = readSmallFile(directory + "/Contents/Info.plist", kMaximumPropertyList);
    return contents ? unlessEmpty(stringInPropertyList(*contents, "CFBundleIdentifier")) : std::nullopt;
}

}  // namespace

std::string bundleDirectoryOfExecutable(const std::string& executable) {
    const fs::path directory = fs::path(executable).parent_path();
    const fs::path contents = directory.parent_path();
    const fs::path application = contents.parent_path();
    const bool inApplication =
        directory.filename() == "MacOS" && contents.filename() == "Contents" && application.extension() == ".app";
    return (inApplication ? application : directory).string();
}

const Bundle& Bundle::main() {
    static const auto* bundle = new Bundle({bundleDirectoryOfExecutable(executablePath())});
    return *bundle;
}

std::optional<Bundle> Bundle::containing(const void* address) {
    Dl_info info{};
    link_map* object = nullptr;
    if (::dladdr1(address, &info, reinterpret_cast<void**>(&object), RTLD_DL_LINKMAP) == 0 || !info.dli_fname) {
        return std::nullopt;
    }
    // The program itself has no name in the loader's list, and its dli_fname is the name it was invoked by.
    const bool isProgram = !object || !object->l_name || *object->l_name == '\0';
    std::error_code failure;
    const fs::path file = isProgram ? fs::path(executablePath()) : fs::absolute(info.dli_fname, failure);
    if (file.empty()) {
        return std::nullopt;
    }
    const fs::path directory = file.parent_path();
    return Bundle({directory.string(), (directory / kLibraryResources).string()});
}

Bundle::Bundle(std::vector<std::string> directories)
    : directories_(std::move(directories)) {}

std::optional<std::string> Bundle::pathForResource(std::string_view name, std::string_view type) const {
    const std::string file = type.empty() ? std::string(name) : fmt::format("{}.{}", name, type);
    return firstExisting(directories_, {"Contents/Resources", "Resources", ""}, file);
}

std::optional<std::string> Bundle::pathForAuxiliaryExecutable(std::string_view name) const {
    return firstExisting(directories_, {"Contents/MacOS", ""}, std::string(name));
}

std::optional<std::string> Bundle::bundleIdentifier() const {
    if (this != &main()) {
        return identifierFromInfoFile(path());
    }
    // The file belongs to the running program, so reading it once is enough.
    static const auto* const ofFile = new std::optional<std::string>(identifierFromInfoFile(path()));
    if (*ofFile) {
        return *ofFile;
    }
    if (GApplication* application = g_application_get_default()) {
        if (const char* id = g_application_get_application_id(application); id && *id != '\0') {
            return std::string(id);
        }
    }
    return unlessEmpty(applicationIdentifier().get());
}

void Bundle::setApplicationIdentifier(std::string identifier) {
    applicationIdentifier().set(std::move(identifier));
}

}  // namespace krv
