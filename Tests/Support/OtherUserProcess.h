#pragma once

#include <functional>

#include <sys/types.h>

namespace krv::test {

/// A process of another user, which does something at once and then keeps what it has until this object is destroyed.
/// Needs root.
class OtherUserProcess {
public:
    static constexpr uid_t kUser = 54321;

    /// Calls asOther in the new process as the other user. Before that, calls `before` there with the rights of this
    /// process. Waits until both have returned.
    explicit OtherUserProcess(const std::function<bool()>& asOther, const std::function<bool()>& before = {});
    ~OtherUserProcess();
    OtherUserProcess(const OtherUserProcess&) = delete;
    OtherUserProcess& operator=(const OtherUserProcess&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }
    /// Returns whether the process has become the other user's, and the functions have returned true.
    [[nodiscard]] bool succeeded() const { return succeeded_; }

private:
    pid_t pid_ = -1;
    bool succeeded_ = false;
    /// The process exits when this is closed.
    int hold_ = -1;
};

}  // namespace krv::test
