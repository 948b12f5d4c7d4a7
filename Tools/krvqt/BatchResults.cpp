#include "BatchResults.h"

#include <cerrno>
#include <chrono>
#include <fstream>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/chrono.h>

namespace krvqt {
namespace {

using Json = nlohmann::json;

[[noreturn]] void fail(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), path);
}

int openFile(const std::string& path) {
    constexpr mode_t kMode = 0666;
    const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, kMode);
    if (file < 0) {
        fail(path);
    }
    return file;
}

/// Holds the lock of a file.
class FileLock {
public:
    explicit FileLock(int file)
        : file_(file) {
        while (::flock(file_, LOCK_EX) != 0 && errno == EINTR) {
        }
    }
    ~FileLock() { ::flock(file_, LOCK_UN); }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

private:
    const int file_;
};

bool endsInTheMiddleOfALine(int file) {
    char last = '\n';
    const off_t size = ::lseek(file, 0, SEEK_END);
    return size > 0 && ::pread(file, &last, 1, size - 1) == 1 && last != '\n';
}

BatchResults::State stateFrom(const std::string& status) {
    using State = BatchResults::State;
    static const std::map<std::string, State> kStates{{"started", State::Interrupted},
                                                      {"done", State::Done},
                                                      {"failed", State::Failed},
                                                      {"cancelled", State::Cancelled}};
    const auto its = kStates.find(status);
    return its == kStates.end() ? State::New : its->second;
}

std::string textOf(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

BatchResults::BatchResults(std::string path)
    : path_(std::move(path))
    , file_(openFile(path_)) {
    read();
}

BatchResults::~BatchResults() {
    ::close(file_);
}

void BatchResults::read() {
    struct stat status {};
    if (::fstat(file_, &status) != 0 || !S_ISREG(status.st_mode)) {
        return;  // reading a device or a pipe might never end
    }
    std::ifstream in(path_);
    for (std::string line; std::getline(in, line);) {
        const Json row = Json::parse(line, nullptr, false);
        if (row.is_object() && row.contains("job") && row.contains("status") && row["status"].is_string()) {
            states_[textOf(row["job"])] = stateFrom(row["status"]);
        }
    }
}

BatchResults::State BatchResults::stateOf(const BatchJob& job) const {
    const auto its = states_.find(textOf(job.description));
    return its == states_.end() ? State::New : its->second;
}

void BatchResults::append(const Json& row, bool durable) {
    std::string text = textOf(row) + "\n";
    const FileLock lock(file_);
    if (endsInTheMiddleOfALine(file_)) {
        text.insert(0, 1, '\n');
    }
    const ssize_t written = ::write(file_, text.data(), text.size());
    if (written >= 0 && static_cast<std::size_t>(written) < text.size()) {
        errno = ENOSPC;
    }
    if (written != static_cast<ssize_t>(text.size()) || (durable && ::fdatasync(file_) != 0 && errno != EINVAL)) {
        fail(path_);
    }
}

Json BatchResults::row(const BatchJob& job, const std::string& status) {
    const auto now = std::chrono::time_point_cast<std::chrono::seconds>(std::chrono::system_clock::now());
    return {{"line", job.line},
            {"status", status},
            {"time", fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(std::chrono::system_clock::to_time_t(now)))},
            {"job", job.description}};
}

}  // namespace krvqt
