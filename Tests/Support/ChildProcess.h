#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace krv::test {

/// A program that a test runs beside itself. Its standard input and output are pipes to the test; it is killed, by its
/// id, and reaped when the object goes.
class ChildProcess {
public:
    /// arguments[0] is the program, looked up in PATH when it has no slash.
    explicit ChildProcess(std::vector<std::string> arguments);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }
    /// The next line of its output without the end of line; nothing at the end of the output.
    std::optional<std::string> readLine();
    /// What is left of its output.
    std::string readAll();
    void writeLine(const std::string& line);
    void closeInput();
    void signal(int number) const;
    /// Waits for its end: the exit status, or minus the signal that ended it.
    int wait();

private:
    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    std::string pending_;
    bool reaped_ = false;
    int status_ = 0;
};

}  // namespace krv::test
