#include <cerrno>
#include <cstdio>
#include <string>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <KRVQTProcessClient/Platform/ProcessTable.h>
#include <KRVQTProcessClient/Platform/ServerIdentity.h>
#include <KRVQTProcessClient/Platform/ServiceRecord.h>

namespace krv {
namespace {

std::string recordPath(const std::string& folder) {
    return folder + '/' + serviceRecordFileName();
}

/// Creates a file of its own beside the path, and sets its name.
int createBeside(const std::string& path, pid_t pid, std::string& name) {
    constexpr int kAttempts = 10;
    int file = -1;
    for (int attempt = 0; attempt < kAttempts && file < 0; ++attempt) {
        name = attempt == 0 ? fmt::format("{}.{}", path, pid) : fmt::format("{}.{}.{}", path, pid, attempt);
        ::unlink(name.c_str());  // of an earlier process with this id
        file = ::open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
        if (file < 0 && errno != EEXIST) {
            break;
        }
    }
    return file;
}

/// Puts a file in its place. A folder that is there is moved aside, and removed if it is empty.
bool put(const std::string& file, const std::string& place) {
    if (::rename(file.c_str(), place.c_str()) == 0) {
        return true;
    }
    if (errno != EISDIR || ::renameat2(AT_FDCWD, file.c_str(), AT_FDCWD, place.c_str(), RENAME_EXCHANGE) != 0) {
        return false;
    }
    ::rmdir(file.c_str());
    return true;
}

}  // namespace

std::string serviceRecordFileName() {
    return serverFileName(".service");
}

std::optional<ServiceRecord> serviceRecordOfThisProcess(std::string name, std::uint16_t port) {
    const auto self = ProcessTable::ofThisUser().process(::getpid());
    const std::uint64_t pids = pidNamespace();
    if (!self || pids == 0) {
        return std::nullopt;
    }
    return ServiceRecord{std::move(name), port, self->pid, self->startTime, pids, std::string(buildVersion())};
}

std::optional<ServiceRecord> readServiceRecord(const std::string& folder) {
    if (folder.empty()) {
        return std::nullopt;
    }
    // Not blocking, because the file may be a FIFO.
    const int file = ::open(recordPath(folder).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (file < 0) {
        return std::nullopt;
    }
    std::string text(4097, '\0');
    struct stat status {};
    ssize_t size = -1;
    if (::fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == ::getuid()) {
        size = ::pread(file, text.data(), text.size(), 0);
    }
    ::close(file);
    text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return parseServiceRecord(text);
}

ServiceRecordFile::ServiceRecordFile(const std::string& folder, const ServiceRecord& record)
    : path_(recordPath(folder)) {
    if (folder.empty()) {
        return;
    }
    std::string unfinished;
    const std::string text = textOf(record);
    file_ = createBeside(path_, record.pid, unfinished);
    if (file_ < 0) {
        return;
    }
    (void)::flock(file_, LOCK_EX | LOCK_NB);
    const bool written = ::write(file_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (!written || !put(unfinished, path_)) {
        ::unlink(unfinished.c_str());
        ::close(std::exchange(file_, -1));
    }
}

ServiceRecordFile::~ServiceRecordFile() {
    if (file_ >= 0) {
        if (isInPlace()) {
            ::unlink(path_.c_str());
        }
        ::close(file_);
    }
}

bool ServiceRecordFile::isInPlace() const {
    struct stat mine {};
    struct stat there {};
    return file_ >= 0 && ::fstat(file_, &mine) == 0 && ::lstat(path_.c_str(), &there) == 0 &&
           mine.st_dev == there.st_dev && mine.st_ino == there.st_ino;
}

}  // namespace krv
