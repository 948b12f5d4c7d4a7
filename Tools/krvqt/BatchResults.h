#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "BatchList.h"

namespace krvqt {

/// The file in which a batch writes what has come of its jobs: one JSON object per line, the latest last.
///
/// Several processes may use the same file. Each row is appended under a lock in one write, so rows are never mixed. A
/// process that is killed may leave a part of a row at the end. Readers ignore it, and the next row starts a new line.
class BatchResults {
public:
    /// How a job stands.
    enum class State : std::uint8_t {
        New,          ///< it has not been started
        Interrupted,  ///< it was started, and nobody noted its end
        Done,
        Failed,
        Cancelled,
    };

    /// Opens the file, and creates it if it is missing. Throws std::system_error.
    explicit BatchResults(std::string path);
    ~BatchResults();
    BatchResults(const BatchResults&) = delete;
    BatchResults& operator=(const BatchResults&) = delete;

    /// Returns how a job stood when this object was created. The same job is one with the same description.
    [[nodiscard]] State stateOf(const BatchJob& job) const;

    /// Appends a row. If durable is set, it survives a failure of the machine. Throws std::system_error.
    void append(const nlohmann::json& row, bool durable);

    /// The rows that say how a job stands. `status` is "started", "done", "failed" or "cancelled".
    [[nodiscard]] static nlohmann::json row(const BatchJob& job, const std::string& status);

private:
    void read();

    const std::string path_;
    const int file_;
    std::map<std::string, State> states_;
};

}  // namespace krvqt
