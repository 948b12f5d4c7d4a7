#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// A directory that holds a program or a library together with what it needs. Immutable; any thread.
class KRV_EXPORT Bundle {
public:
    /// The application's bundle: the enclosing X.app when the executable stands in X.app/Contents/MacOS/, else the
    /// directory of the executable. Lives as long as the process.
    [[nodiscard]] static const Bundle& main();

    /// The bundle of the library (or program) in which a function or an object of this process lies: the directory of
    /// its file, then the directory "krvqtprocessclient" in there. Empty for an address that lies in none.
    [[nodiscard]] static std::optional<Bundle> containing(const void* address);

    /// A bundle over directories that are searched in order; the first one is the bundle's path. At least one.
    explicit Bundle(std::vector<std::string> directories);

    [[nodiscard]] const std::string& path() const { return directories_.front(); }

    /// The path of the file or directory "name.type" ("name" for an empty type) in Contents/Resources/, in Resources/
    /// or in the bundle's directory itself.
    [[nodiscard]] std::optional<std::string> pathForResource(std::string_view name, std::string_view type) const;

    /// The path of a file or directory in Contents/MacOS/ or in the bundle's directory itself.
    [[nodiscard]] std::optional<std::string> pathForAuxiliaryExecutable(std::string_view name) const;

    /// The identifier, such as "org.example.Editor": CFBundleIdentifier of Contents/Info.plist (as XML). The main
    /// bundle goes on to the id of the process's default GApplication and to what setApplicationIdentifier was given.
    /// Absent when there is none.
    [[nodiscard]] std::optional<std::string> bundleIdentifier() const;

    /// Names the application for a main bundle that has no other identifier; empty takes the name back.
    static void setApplicationIdentifier(std::string identifier);

private:
    std::vector<std::string> directories_;
};

}  // namespace krv
