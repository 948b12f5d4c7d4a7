#include <cerrno>
#include <string>

#include <fcntl.h>
#include <sys/file.h>

#include <KRVQTProcessClient/Platform/ServerIdentity.h>

#include <MediaServer/Files/InstanceLock.h>

namespace krv::server {

InstanceLock::Result InstanceLock::acquire(const std::filesystem::path& folder) {
    if (folder.empty()) {
        return Result::Failed;
    }
    const auto path = folder / serverFileName(".lock");
    file_.reset(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
    if (!file_) {
        return Result::Failed;
    }
    if (::flock(file_.get(), LOCK_EX | LOCK_NB) == 0) {
        return Result::Held;
    }
    return errno == EWOULDBLOCK ? Result::TakenByAnother : Result::Failed;
}

}  // namespace krv::server
