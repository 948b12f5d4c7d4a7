#pragma once

#include <functional>

#include "ExitStatus.h"

namespace krvqt {

/// Runs the work on a second thread while the calling thread runs the main run loop, on which the library searches for
/// the server. Returns the result of the work. Call on the main thread only.
ExitStatus runBesideMainLoop(const std::function<ExitStatus()>& work);

}  // namespace krvqt
