#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace krv::test {

/// A temporary folder for one test. The destructor removes it with its contents.
class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "krv-test-XXXXXX").string();
        if (!::mkdtemp(name.data())) {
            throw std::runtime_error("cannot create a temporary folder");
        }
        path_ = name;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    /// Writes a file in the folder, creating missing parent folders, and returns its path.
    std::string write(const std::filesystem::path& file, std::string_view contents) const {
        const auto full = path_ / file;
        std::filesystem::create_directories(full.parent_path());
        std::ofstream(full, std::ios::binary) << contents;
        return full.string();
    }

private:
    std::filesystem::path path_;
};

}  // namespace krv::test
