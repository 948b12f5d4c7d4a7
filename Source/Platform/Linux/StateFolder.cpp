#include <cstdlib>
#include <filesystem>

#include <KRVQTProcessClient/Platform/StateFolder.h>

namespace krv {

std::string stateFolder(std::string_view name) {
    namespace fs = std::filesystem;
    const char* const state = std::getenv("XDG_STATE_HOME");
    const char* const home = std::getenv("HOME");
    fs::path folder;
    if (state && state[0] == '/') {
        folder = state;
    } else if (home && home[0] == '/') {
        folder = fs::path(home) / ".local/state";
    } else {
        return {};
    }
    folder /= name;
    std::error_code failure;
    fs::create_directories(folder, failure);
    return failure ? std::string() : folder.string();
}

}  // namespace krv
