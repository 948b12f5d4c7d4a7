#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// A directory that holds a program or a library together with its resources. Immutable, thread-safe.
class KRV_EXPORT Bundle {
public:
    /// Returns the application's bundle: the enclosing X.app if the executable is in X.app/Contents/MacOS/, else the
    /// directory of the executable. Never destroyed.
    [[nodiscard]] static const Bundle& main();

    /// Returns the bundle of the library (or program) that contains a function or an object of this process: the
    /// directory of its file, then the directory "krvqtprocessclient" in it. Empty if no file contains the address.
    [[nodiscard]] static std::optional<Bundle> containing(const void* address);

    /// Creates a bundle of directories, at least one, that are searched in order. The first is the bundle's path.
    explicit Bundle(std::vector<std::string> directories);

    [[nodiscard]] const std::string& path() const { return directories_.front(); }

    /// Returns the path of the file or directory "name.type" ("name" if type is empty) in Contents/Resources/, in
    /// Resources/ or in the bundle's directory itself.
    [[nodiscard]] std::optional<std::string> pathForResource(std::string_view name, std::string_view type) const;

    /// Returns the path of a file or directory in Contents/MacOS/ or in the bundle's directory itself.
    [[nodiscard]] std::optional<std::string> pathForAuxiliaryExecutable(std::string_view name) const;

    /// Returns the identifier, such as "org.example.Editor": CFBundleIdentifier of Contents/Info.plist (as XML). For
    /// the main bundle the id of the default GApplication and the one given to setApplicationIdentifier come next.
    /// Empty if there is none.
    [[nodiscard]] std::optional<std::string> bundleIdentifier() const;

    /// Sets the identifier of a main bundle that has no other; an empty one removes it.
    static void setApplicationIdentifier(std::string identifier);

private:
    std::vector<std::string> directories_;
};

}  // namespace krv
