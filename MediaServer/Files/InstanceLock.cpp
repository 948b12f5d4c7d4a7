#include <cerrno>
#include <cstring>
#include <fstream>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <fmt/format.h>

#include <KRVQTProcessClient/Platform/ServerIdentity.h>

#include <MediaServer/Files/InstanceLock.h>

namespace krv::server {
namespace {

std::string firstLine(const char* path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

/// Returns a name for this machine. In a container without one, it is that of the machine's latest start.
std::string machineId() {
    const std::string id = firstLine("/etc/machine-id");
    return id.empty() || id.find('/') != std::string::npos ? firstLine("/proc/sys/kernel/random/boot_id") : id;
}

std::string inWords(int errorNumber) {
    return errorNumber == ELOOP ? "it is a symbolic link" : std::strerror(errorNumber);
}

}  // namespace

InstanceLock::Result InstanceLock::lock(const std::filesystem::path& path, Descriptor& file) {
    const auto failed = [&](const std::string& problem) {
        failure_ = fmt::format("Cannot lock {}: {}.", path.string(), problem);
        file.reset();
        return Result::Failed;
    };
    constexpr int kNeverBlock = O_NONBLOCK | O_NOCTTY;
    file.reset(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | kNeverBlock, S_IRUSR | S_IWUSR));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) {
        return failed(inWords(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        return failed("it is not a regular file");
    }
    if (::flock(file.get(), LOCK_EX | LOCK_NB) == 0) {
        return Result::Held;
    }
    const int errorNumber = errno;
    if (errorNumber == EWOULDBLOCK) {
        file.reset();
        return Result::TakenByAnother;
    }
    return failed(inWords(errorNumber));
}

void InstanceLock::release() {
    session_.reset();
    lasting_.reset();
}

InstanceLock::Result InstanceLock::acquire(const std::filesystem::path& runtimeFolder,
                                           const std::filesystem::path& stateFolder) {
    if (runtimeFolder.empty()) {
        failure_ =
            "There is no folder for the lock file: $XDG_RUNTIME_DIR, the folder in /tmp and the state folder are "
            "missing, or others than the user can write to them.";
        return Result::Failed;
    }
    const Result result = lock(runtimeFolder / serverFileName(".lock"), session_);
    if (result != Result::Held || stateFolder.empty()) {
        return result;
    }
    if (lock(stateFolder / serverFileName(fmt::format("-{}.lock", machineId())), lasting_) == Result::TakenByAnother) {
        session_.reset();
        return Result::TakenByAnother;
    }
    return Result::Held;
}

}  // namespace krv::server
