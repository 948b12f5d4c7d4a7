// Only fonts that are known by name are used, because a file's name does not say what the family is called in it. A
// full search of the machine's fonts would need fontconfig, whose caches a worker cannot read.
#include <algorithm>
#include <array>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <MediaServer/Protocol/Descriptor.h>
#include <MediaServer/Worker/DefaultFont.h>

namespace krv::server {
namespace {

struct Known {
    std::string_view file;
    std::string_view family;
};

/// The best ones first: those with the most alphabets.
constexpr std::array kKnown{Known{"DejaVuSans.ttf", "DejaVu Sans"},
                            Known{"NotoSans-Regular.ttf", "Noto Sans"},
                            Known{"LiberationSans-Regular.ttf", "Liberation Sans"},
                            Known{"FreeSans.ttf", "FreeSans"},
                            Known{"OpenSans-Regular.ttf", "Open Sans"},
                            Known{"Roboto-Regular.ttf", "Roboto"},
                            Known{"Ubuntu-R.ttf", "Ubuntu"},
                            Known{"Lato-Regular.ttf", "Lato"},
                            Known{"NotoSansCJK-Regular.ttc", "Noto Sans CJK JP"},
                            Known{"DroidSansFallbackFull.ttf", "Droid Sans Fallback"}};

/// Of the system only: the home folder may be on a drive that does not respond.
constexpr std::array kFolders{"/usr/share/fonts", "/usr/local/share/fonts"};

/// So many files and folders are looked at in one of them.
constexpr int kMostEntries = 20'000;
constexpr off_t kLargestFont = off_t{64} << 20;

struct Found {
    std::size_t rank = kKnown.size();
    std::string path;
};

void search(const char* folder, Found& best) {
    std::error_code error;
    std::filesystem::recursive_directory_iterator at(folder, std::filesystem::directory_options::skip_permission_denied,
                                                     error);
    int seen = 0;
    for (; !error && at != std::filesystem::end(at) && best.rank > 0 && ++seen < kMostEntries; at.increment(error)) {
        const std::string name = at->path().filename().string();
        const auto* const known =
            std::find_if(kKnown.begin(), kKnown.end(), [&](const Known& each) { return each.file == name; });
        if (const auto rank = static_cast<std::size_t>(known - kKnown.begin()); rank < best.rank) {
            best = {rank, at->path().string()};
        }
    }
}

std::string_view map(const std::string& path) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size <= 0 ||
        status.st_size > kLargestFont) {
        return {};
    }
    const auto size = static_cast<std::size_t>(status.st_size);
    const void* const bytes = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file.get(), 0);
    return bytes == MAP_FAILED ? std::string_view() : std::string_view(static_cast<const char*>(bytes), size);
}

}  // namespace

media::Font mapDefaultFont() {
    Found best;
    for (const char* const folder : kFolders) {
        search(folder, best);
    }
    if (best.path.empty()) {
        return {};
    }
    return {map(best.path), std::string(kKnown[best.rank].family)};
}

}  // namespace krv::server
