#pragma once

#include <functional>

#include "ExitStatus.h"

namespace krvqt {

/// Runs the work on a second thread while the calling thread, which must be the main one, turns the main run loop that
/// the library's search for the server lives on. Returns what the work returned.
ExitStatus runBesideMainLoop(const std::function<ExitStatus()>& work);

}  // namespace krvqt
