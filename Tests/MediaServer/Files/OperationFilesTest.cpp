// The open files of an operation.
#include <csignal>
#include <optional>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "TemporaryFolder.h"
#include <MediaServer/Files/OperationFiles.h>

namespace krv::server {
namespace {

/// Another program that has a lease on a file, as a file server has for its clients. It gives the lease up when
/// somebody else opens the file: the signal that asks for it ends the program.
class LeaseHolder {
public:
    explicit LeaseHolder(const std::string& path) {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) {
            return;
        }
        const Descriptor here(ends[0]);
        Descriptor there(ends[1]);
        process_ = ::fork();
        if (process_ == 0) {
            const int file = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
            const char holds = ::fcntl(file, F_SETLEASE, F_WRLCK) == 0 ? 'y' : 'n';
            [[maybe_unused]] const auto told = ::write(there.get(), &holds, 1);
            for (;;) {
                ::pause();
            }
        }
        there.reset();
        char holds = 0;
        holds_ = ::read(here.get(), &holds, 1) == 1 && holds == 'y';
    }
    ~LeaseHolder() {
        ::kill(process_, SIGKILL);
        ::waitpid(process_, nullptr, 0);
    }
    LeaseHolder(const LeaseHolder&) = delete;
    LeaseHolder& operator=(const LeaseHolder&) = delete;

    [[nodiscard]] bool holds() const { return holds_; }

private:
    pid_t process_ = -1;
    bool holds_ = false;
};

TEST(OperationFiles, ASourceThatAnotherProgramLeasesIsOpenedWhenItGivesTheLeaseUp) {
    const test::TemporaryFolder folder;
    const std::string source = folder.write("leased.mov", "movie");
    const LeaseHolder other(source);
    if (!other.holds()) {
        GTEST_SKIP() << "this file system has no leases";
    }
    std::optional<Failure> failure;
    const auto files = OperationFiles::open(
        *KRVOperationBase::provideMetadataFor(source), [](std::size_t, dev_t) { return true; }, failure);
    EXPECT_FALSE(failure) << failure->errorNumber;
    EXPECT_NE(files, nullptr);
}

}  // namespace
}  // namespace krv::server
