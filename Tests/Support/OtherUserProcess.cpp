#include "OtherUserProcess.h"

#include <array>

#include <sys/wait.h>
#include <unistd.h>

#include <grp.h>

namespace krv::test {
namespace {

bool becomeOther() {
    constexpr uid_t kUser = OtherUserProcess::kUser;
    return ::setgroups(0, nullptr) == 0 && ::setresgid(kUser, kUser, kUser) == 0 &&
           ::setresuid(kUser, kUser, kUser) == 0;
}

}  // namespace

OtherUserProcess::OtherUserProcess(const std::function<bool()>& asOther, const std::function<bool()>& before) {
    std::array<int, 2> done{};
    std::array<int, 2> hold{};
    if (::pipe(done.data()) != 0 || ::pipe(hold.data()) != 0) {
        return;
    }
    pid_ = ::fork();
    if (pid_ == 0) {
        ::close(hold[1]);
        char result = (!before || before()) && becomeOther() && asOther() ? 1 : 0;
        [[maybe_unused]] const auto told = ::write(done[1], &result, 1);
        ::close(done[1]);
        [[maybe_unused]] const auto waited = ::read(hold[0], &result, 1);
        ::_exit(0);
    }
    ::close(done[1]);
    ::close(hold[0]);
    hold_ = hold[1];
    char result = 0;
    succeeded_ = ::read(done[0], &result, 1) == 1 && result == 1;
    ::close(done[0]);
}

OtherUserProcess::~OtherUserProcess() {
    ::close(hold_);
    if (pid_ > 0) {
        ::waitpid(pid_, nullptr, 0);
    }
}

}  // namespace krv::test
