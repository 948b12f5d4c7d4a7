#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <KRVQTProcessClient/Operations/MediaServerName.h>
#include <KRVQTProcessClient/Platform/StateFolder.h>

#include <MediaServer/Files/AtomicOutput.h>

namespace krv::server {
namespace {

constexpr std::string_view kHiddenPrefix = ".krv-";
constexpr std::string_view kHiddenSuffix = ".part";
constexpr mode_t kReadWrite = 0666;
constexpr mode_t kPermissions = 0777;

std::string randomName() {
    std::random_device random;
    return fmt::format("{:08x}{:08x}{:08x}{:08x}", random(), random(), random(), random());
}

std::filesystem::path notesFolder() {
    const std::filesystem::path folder = stateFolder(kMediaServerName);
    if (folder.empty()) {
        return {};
    }
    std::error_code failure;
    std::filesystem::create_directories(folder / "unfinished", failure);
    return failure ? std::filesystem::path() : folder / "unfinished";
}

bool isHiddenName(const std::filesystem::path& path) {
    const std::string name = path.filename().string();
    return name.size() > kHiddenPrefix.size() + kHiddenSuffix.size() &&
           name.compare(0, kHiddenPrefix.size(), kHiddenPrefix) == 0 &&
           name.compare(name.size() - kHiddenSuffix.size(), kHiddenSuffix.size(), kHiddenSuffix) == 0;
}

}  // namespace

AtomicOutput::AtomicOutput(std::string destination)
    : asGiven_(std::move(destination))
    , destination_(asGiven_) {
    // Follows a symbolic link, as any program that writes a file does, so that it stays a link.
    std::error_code failure;
    if (std::filesystem::is_symlink(destination_, failure)) {
        if (auto target = std::filesystem::weakly_canonical(destination_, failure); !failure) {
            destination_ = std::move(target);
        }
    }
}

AtomicOutput::~AtomicOutput() {
    takeBack();
    forgetHiddenName();
}

Failure AtomicOutput::failed(int errorNumber) const {
    return {.cause = FailureCause::UnwritableDestination, .errorNumber = errorNumber, .path = asGiven_};
}

std::unique_ptr<AtomicOutput> AtomicOutput::open(const std::string& destination, std::optional<Failure>& failure) {
    std::unique_ptr<AtomicOutput> output(new AtomicOutput(destination));
    struct stat status {};
    if (::stat(output->destination_.c_str(), &status) == 0) {
        if (S_ISDIR(status.st_mode)) {
            failure = output->failed(EISDIR);
            return nullptr;
        }
        // Replacing needs write access to the folder only, but users do not expect a read-only file to be replaced.
        if (::faccessat(AT_FDCWD, output->destination_.c_str(), W_OK, AT_EACCESS) != 0) {
            failure = output->failed(errno);
            return nullptr;
        }
    }
    if (!output->openUnnamed()) {
        const bool noUnnamedFiles = errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL;
        if (!noUnnamedFiles || !output->openHidden()) {
            failure = output->failed(errno);
            return nullptr;
        }
    }
    if (::fstat(output->file_.get(), &status) != 0) {
        failure = output->failed(errno);
        return nullptr;
    }
    output->mode_ = status.st_mode & kPermissions;
    return output;
}

bool AtomicOutput::openUnnamed() {
    file_.reset(::open(destination_.parent_path().c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, kReadWrite));
    return static_cast<bool>(file_);
}

bool AtomicOutput::openHidden() {
    if (!noteHiddenName()) {
        return false;
    }
    file_.reset(::open(hidden_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kReadWrite));
    return static_cast<bool>(file_);
}

bool AtomicOutput::noteHiddenName() {
    const std::string name = randomName();
    hidden_ = destination_.parent_path() / fmt::format("{}{}{}", kHiddenPrefix, name, kHiddenSuffix);
    const auto folder = notesFolder();
    if (folder.empty()) {
        return true;  // there is nowhere to record it, and the output is worth more than the clean-up
    }
    note_ = folder / name;
    const Descriptor note(::open(note_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
    const std::string text = hidden_.string();
    return note && ::write(note.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
           ::fsync(note.get()) == 0;
}

void AtomicOutput::forgetHiddenName() {
    if (!hidden_.empty()) {
        ::unlink(hidden_.c_str());
        hidden_.clear();
    }
    if (!note_.empty()) {
        ::unlink(note_.c_str());
        note_.clear();
    }
}

bool AtomicOutput::linkTo(const std::filesystem::path& name) const {
    const std::string self = fmt::format("/proc/self/fd/{}", file_.get());
    return ::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

std::optional<Failure> AtomicOutput::commit() {
    auto failure = put(Old::Dropped);
    if (!failure) {
        keep();
    }
    return failure;
}

std::optional<Failure> AtomicOutput::place() {
    return put(Old::Kept);
}

void AtomicOutput::keep() {
    placed_ = Placed::No;
    forgetHiddenName();
}

std::optional<Failure> AtomicOutput::put(Old old) {
    // A worker that has been taken over may have made the file executable, or set-user-id.
    if (::fchmod(file_.get(), mode_) != 0 || ::fsync(file_.get()) != 0) {
        return failed(errno);
    }
    if (hidden_.empty()) {
        if (linkTo(destination_)) {
            placed_ = Placed::New;
            return std::nullopt;
        }
        if (errno != EEXIST) {
            return failed(errno);
        }
        if (!noteHiddenName() || !linkTo(hidden_)) {
            return failed(errno);
        }
    }
    struct stat status {};
    if (::stat(destination_.c_str(), &status) == 0) {
        ::fchmod(file_.get(), status.st_mode & kPermissions);
    }
    return replace(old) ? std::nullopt : std::optional(failed(errno));
}

bool AtomicOutput::replace(Old old) {
    if (old == Old::Kept) {
        if (::renameat2(AT_FDCWD, hidden_.c_str(), AT_FDCWD, destination_.c_str(), RENAME_EXCHANGE) == 0) {
            placed_ = Placed::Exchanged;
            return true;
        }
        if (errno != ENOENT && errno != EINVAL && errno != ENOSYS) {
            return false;
        }
    }
    const bool isNew = ::access(destination_.c_str(), F_OK) != 0;
    if (::rename(hidden_.c_str(), destination_.c_str()) != 0) {
        return false;
    }
    hidden_.clear();
    placed_ = isNew ? Placed::New : Placed::No;
    return true;
}

void AtomicOutput::takeBack() {
    struct stat ours {};
    struct stat there {};
    const bool stillOurs = ::fstat(file_.get(), &ours) == 0 && ::lstat(destination_.c_str(), &there) == 0 &&
                           ours.st_dev == there.st_dev && ours.st_ino == there.st_ino;
    if (stillOurs && placed_ == Placed::New) {
        ::unlink(destination_.c_str());
    } else if (stillOurs && placed_ == Placed::Exchanged) {
        ::renameat2(AT_FDCWD, hidden_.c_str(), AT_FDCWD, destination_.c_str(), RENAME_EXCHANGE);
    }
}

void AtomicOutput::sweep() {
    const auto folder = notesFolder();
    std::error_code failure;
    for (const auto& note : std::filesystem::directory_iterator(folder, failure)) {
        std::ostringstream text;
        text << std::ifstream(note.path(), std::ios::binary).rdbuf();
        const std::string hidden = text.str();
        if (isHiddenName(hidden)) {
            ::unlink(hidden.c_str());
        }
        ::unlink(note.path().c_str());
    }
}

}  // namespace krv::server
