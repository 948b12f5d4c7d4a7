#include <cerrno>
#include <cstdio>
#include <fstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <MediaServer/Files/AtomicOutput.h>
#include <MediaServer/Files/ReplacedFile.h>

namespace krv::server {
namespace {

constexpr mode_t kReadWrite = 0666;
constexpr mode_t kOwnerOnly = 0600;
constexpr mode_t kPermissions = 0777;

/// Returns the process's umask. umask() itself would change it under the feet of other threads.
mode_t currentUmask() {
    std::ifstream status("/proc/self/status");
    constexpr std::string_view kHeading = "Umask:";
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(kHeading)) {
            return static_cast<mode_t>(std::stoul(line.substr(kHeading.size()), nullptr, 8));
        }
    }
    return S_IWGRP | S_IRWXO;
}

}  // namespace

AtomicOutput::AtomicOutput(Destination destination)
    : destination_(std::move(destination)) {}

AtomicOutput::~AtomicOutput() {
    takeBack();
    forgetHiddenName();
}

std::unique_ptr<AtomicOutput> AtomicOutput::open(const std::string& destination, std::optional<Failure>& failure) {
    auto place = Destination::open(destination, failure);
    return place ? open(*std::move(place), failure) : nullptr;
}

std::unique_ptr<AtomicOutput> AtomicOutput::open(Destination destination, std::optional<Failure>& failure) {
    std::unique_ptr<AtomicOutput> output(new AtomicOutput(std::move(destination)));
    if (!output->openUnnamed()) {
        const bool noUnnamedFiles = errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL;
        if (!noUnnamedFiles || !output->openHidden()) {
            failure = output->destination_.unwritable(errno);
            return nullptr;
        }
    }
    return output;
}

bool AtomicOutput::openUnnamed() {
    file_.reset(::openat(destination_.folder(), ".", O_TMPFILE | O_RDWR | O_CLOEXEC, kReadWrite));
    struct stat status {};
    if (!file_ || ::fstat(file_.get(), &status) != 0) {
        return false;
    }
    createdMode_ = status.st_mode & kPermissions;
    mode_ = createdMode_;
    return true;
}

bool AtomicOutput::openHidden() {
    chooseHiddenName();
    file_.reset(::openat(destination_.folder(), hidden_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                         kOwnerOnly));
    struct stat status {};
    if (!file_ || ::fstat(file_.get(), &status) != 0) {
        return false;
    }
    // A file system without permissions gives all files the same ones, and refuses others.
    createdMode_ = status.st_mode & kPermissions;
    mode_ = createdMode_ == kOwnerOnly ? kReadWrite & ~currentUmask() : createdMode_;
    return true;
}

void AtomicOutput::chooseHiddenName() {
    hidden_ = UnfinishedNote::hiddenName();
    note_ = UnfinishedNote(fmt::format("{}/{}", destination_.folderPath(), hidden_));
}

void AtomicOutput::forgetHiddenName() {
    if (!hidden_.empty()) {
        ::unlinkat(destination_.folder(), hidden_.c_str(), 0);
        hidden_.clear();
    }
    note_.remove();
}

bool AtomicOutput::linkTo(const std::string& name) const {
    const std::string self = fmt::format("/proc/self/fd/{}", file_.get());
    return ::linkat(AT_FDCWD, self.c_str(), destination_.folder(), name.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

void AtomicOutput::keep() {
    placed_ = Placed::No;
    forgetHiddenName();
    flushFolder(destination_.folder());
}

std::optional<Failure> AtomicOutput::place() {
    if (auto refusal = destination_.refusal()) {
        return refusal;
    }
    // A worker that has been taken over may have made the file executable, or set-user-id.
    if (::fchmod(file_.get(), createdMode_) != 0) {
        return destination_.unwritable(errno);
    }
    const bool replaces = inheritFrom(destination_.folder(), destination_.name(), file_.get());
    if ((!replaces && ::fchmod(file_.get(), mode_) != 0) || ::fsync(file_.get()) != 0) {
        return destination_.unwritable(errno);
    }
    if (hidden_.empty()) {
        if (!replaces && linkTo(destination_.name())) {
            placed_ = Placed::New;
            return std::nullopt;
        }
        if (!replaces && errno != EEXIST) {
            return destination_.unwritable(errno);
        }
        chooseHiddenName();
        if (!linkTo(hidden_)) {
            return destination_.unwritable(errno);
        }
    }
    return replace();
}

std::optional<Failure> AtomicOutput::replace() {
    const int folder = destination_.folder();
    const char* const hidden = hidden_.c_str();
    const char* const name = destination_.name().c_str();
    if (::renameat2(folder, hidden, folder, name, RENAME_EXCHANGE) == 0) {
        // A folder or a link may have taken the old file's place since place() looked, while the file was flushed.
        auto refusal = refusalToReplace(folder, hidden_, destination_.path());
        if (refusal && ::renameat2(folder, hidden, folder, name, RENAME_EXCHANGE) == 0) {
            return refusal;
        }
        placed_ = Placed::Exchanged;
        return std::nullopt;
    }
    if (errno != ENOENT && errno != EINVAL && errno != ENOSYS) {
        return destination_.unwritable(errno);
    }
    const bool isNew = ::faccessat(folder, name, F_OK, AT_SYMLINK_NOFOLLOW) != 0;
    if (::renameat(folder, hidden, folder, name) != 0) {
        return destination_.unwritable(errno);
    }
    hidden_.clear();
    placed_ = isNew ? Placed::New : Placed::No;
    return std::nullopt;
}

void AtomicOutput::takeBack() {
    const int folder = destination_.folder();
    const char* const name = destination_.name().c_str();
    struct stat ours {};
    struct stat there {};
    const bool stillOurs = placed_ != Placed::No && ::fstat(file_.get(), &ours) == 0 &&
                           ::fstatat(folder, name, &there, AT_SYMLINK_NOFOLLOW) == 0 && ours.st_dev == there.st_dev &&
                           ours.st_ino == there.st_ino;
    if (stillOurs && placed_ == Placed::New) {
        ::unlinkat(folder, name, 0);
    } else if (stillOurs && placed_ == Placed::Exchanged) {
        ::renameat2(folder, hidden_.c_str(), folder, name, RENAME_EXCHANGE);
    }
}

}  // namespace krv::server
