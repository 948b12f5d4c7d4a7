#pragma once

#include <chrono>

#include <CLI/App.hpp>

namespace krvqt {

/// Options of every command.
struct CommonOptions {
    bool json = false;
    bool quiet = false;
    bool verbose = false;
    /// How long to wait for a media server.
    std::chrono::duration<double> wait{20};
};

/// Adds the option that allows a command to replace files.
inline void addForce(CLI::App& command, bool& force) {
    command.add_flag("-f,--force", force, "replace an existing destination");
}

}  // namespace krvqt
