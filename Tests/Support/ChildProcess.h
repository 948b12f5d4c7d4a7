#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace krv::test {

/// A program that runs beside a test, with its standard input and output connected to the test. The destructor kills it
/// by its process id and reaps it.
class ChildProcess {
public:
    /// Starts the program arguments[0], looked up in PATH if it has no slash. Throws std::runtime_error on failure.
    explicit ChildProcess(std::vector<std::string> arguments);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }
    /// Blocks for the next line of output and returns it without its newline. Returns nullopt at the end of the output.
    std::optional<std::string> readLine();
    /// Blocks until the end of the output and returns the rest of it.
    std::string readAll();
    void writeLine(const std::string& line);
    void closeInput();
    void signal(int number) const;
    /// Waits until the process exits. Returns its exit status, or minus the number of the signal that killed it.
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
