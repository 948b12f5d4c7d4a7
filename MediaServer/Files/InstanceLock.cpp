// How a server takes the lock of one that has died but keeps it.
//
// The kernel releases a lock when the last thread of its process has ended. A thread that is blocked on a drive may
// outlive its killed process for as long as the drive does not respond, and no server could start in this time. So the
// holder writes its process id and start time into the lock file. If the file is locked and that process has exited or
// is a zombie, the next server locks a new file and renames it over the old one. A zombie runs no code any more.
//
// Two servers that start at the same moment must not both do so. If the second one saw the dead holder before the first
// one has replaced the file, it would replace the file of the first. If it had opened the old file before, it could get
// that lock when the drive responds, though the file has lost its name. So everything happens under another lock, the
// gate, which is on a file of its own that is never replaced. A server holds it for the moment in which it starts, when
// it has no threads and no access to any drive but that of the lock files, so the gate is always released.
//
// Whoever cannot read the holder's record, or not tell whether the process lives, leaves the lock alone. A record that
// an earlier holder left says nothing wrong: nobody reads it before the next holder has written its own, because of the
// gate. A holder in another pid namespace has another lock file.
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <KRVQTProcessClient/Platform/ProcessTable.h>
#include <KRVQTProcessClient/Platform/ServerIdentity.h>

#include <MediaServer/Files/InstanceLock.h>

namespace krv::server {
namespace {

using namespace std::chrono_literals;

/// How long a server may hold the gate.
constexpr auto kPatience = 5s;
constexpr auto kInterval = 10ms;

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

/// Opens or creates a file to be locked. Returns none and sets problem on failure.
Descriptor openLockFile(const std::filesystem::path& path, int flags, std::string& problem) {
    constexpr int kNeverBlock = O_NONBLOCK | O_NOCTTY;
    Descriptor file(
        ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | kNeverBlock | flags, S_IRUSR | S_IWUSR));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) {
        problem = inWords(errno);
        return {};
    }
    if (!S_ISREG(status.st_mode)) {
        problem = "it is not a regular file";
        return {};
    }
    return file;
}

bool tryLock(const Descriptor& file) {
    return ::flock(file.get(), LOCK_EX | LOCK_NB) == 0;
}

/// Writes who holds the lock, for the next server.
void writeHolder(const Descriptor& file) {
    const auto self = ProcessTable::system().process(::getpid());
    const std::string text = self ? fmt::format("{} {}\n", self->pid, self->startTime) : std::string();
    if (::ftruncate(file.get(), 0) == 0) {
        [[maybe_unused]] const auto written = ::pwrite(file.get(), text.data(), text.size(), 0);
    }
}

/// Returns whether the process that holds the lock is known to have exited.
bool holderHasExited(const Descriptor& file) {
    std::array<char, 64> text{};
    const ssize_t size = ::pread(file.get(), text.data(), text.size(), 0);
    std::istringstream in(std::string(text.data(), size > 0 ? static_cast<std::size_t>(size) : 0));
    pid_t pid = 0;
    std::uint64_t startTime = 0;
    return in >> pid >> startTime && pid > 0 && ProcessTable::system().hasExited(pid, startTime);
}

/// Puts a new, locked file in place of one whose holder has exited. Returns none on failure.
Descriptor replaceLockFile(const std::filesystem::path& path) {
    const std::string unfinished = fmt::format("{}.{}", path.string(), ::getpid());
    ::unlink(unfinished.c_str());
    std::string problem;
    Descriptor file = openLockFile(unfinished, O_EXCL, problem);
    if (!file) {
        return {};
    }
    if (tryLock(file)) {
        writeHolder(file);
        if (std::rename(unfinished.c_str(), path.c_str()) == 0) {
            return file;
        }
    }
    ::unlink(unfinished.c_str());
    return {};
}

/// Waits until this process may look at the lock file, and change it.
bool passGate(const Descriptor& gate) {
    const auto limit = std::chrono::steady_clock::now() + kPatience;
    while (!tryLock(gate)) {
        if (errno != EWOULDBLOCK) {
            return true;  // a file system without locks
        }
        if (std::chrono::steady_clock::now() >= limit) {
            return false;
        }
        std::this_thread::sleep_for(kInterval);
    }
    return true;
}

}  // namespace

InstanceLock::Result InstanceLock::lock(const std::filesystem::path& path, Descriptor& file) {
    const auto failed = [&](const std::filesystem::path& which, const std::string& problem) {
        failure_ = fmt::format("Cannot lock {}: {}.", which.string(), problem);
        file.reset();
        return Result::Failed;
    };
    std::string problem;
    file = openLockFile(path, 0, problem);
    if (!file) {
        return failed(path, problem);
    }
    const std::filesystem::path gatePath = path.string() + ".gate";
    const Descriptor gate = openLockFile(gatePath, 0, problem);
    if (!gate) {
        return failed(gatePath, problem);
    }
    if (!passGate(gate)) {
        file.reset();
        return Result::TakenByAnother;
    }
    // Again, because it may have been replaced.
    file = openLockFile(path, 0, problem);
    if (!file) {
        return failed(path, problem);
    }
    if (tryLock(file)) {
        writeHolder(file);
        return Result::Held;
    }
    const int errorNumber = errno;
    if (errorNumber != EWOULDBLOCK) {
        return failed(path, inWords(errorNumber));
    }
    file = holderHasExited(file) ? replaceLockFile(path) : Descriptor();
    return file ? Result::Held : Result::TakenByAnother;
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
