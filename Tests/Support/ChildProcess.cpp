#include "ChildProcess.h"

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace krv::test {

ChildProcess::ChildProcess(std::vector<std::string> arguments) {
    int in[2];
    int out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
        throw std::runtime_error("cannot create a pipe");
    }
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_adddup2(&files, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&files, out[1], STDOUT_FILENO);
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    const int failure = ::posix_spawnp(&pid_, argv[0], &files, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    ::close(in[0]);
    ::close(out[1]);
    input_ = in[1];
    output_ = out[0];
    if (failure != 0) {
        reaped_ = true;
        throw std::runtime_error("cannot run " + arguments[0]);
    }
}

ChildProcess::~ChildProcess() {
    closeInput();
    if (!reaped_) {
        ::kill(pid_, SIGKILL);
        wait();
    }
    ::close(output_);
}

std::optional<std::string> ChildProcess::readLine() {
    for (;;) {
        if (const std::size_t end = pending_.find('\n'); end != std::string::npos) {
            std::string line = pending_.substr(0, end);
            pending_.erase(0, end + 1);
            return line;
        }
        char buffer[4096];
        const ssize_t count = ::read(output_, buffer, sizeof buffer);
        if (count > 0) {
            pending_.append(buffer, static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return std::nullopt;
        }
    }
}

std::string ChildProcess::readAll() {
    std::string all;
    while (const auto line = readLine()) {
        all += *line + '\n';
    }
    return all + std::exchange(pending_, {});
}

void ChildProcess::writeLine(const std::string& line) {
    const std::string text = line + '\n';
    [[maybe_unused]] const auto written = ::write(input_, text.data(), text.size());
}

void ChildProcess::closeInput() {
    if (input_ >= 0) {
        ::close(std::exchange(input_, -1));
    }
}

void ChildProcess::signal(int number) const {
    if (!reaped_) {
        ::kill(pid_, number);
    }
}

int ChildProcess::wait() {
    while (!reaped_) {
        if (::waitpid(pid_, &status_, 0) == pid_ || errno != EINTR) {
            reaped_ = true;
        }
    }
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : -WTERMSIG(status_);
}

}  // namespace krv::test
