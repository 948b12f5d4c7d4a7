#pragma once

namespace krv {

/// GIO's class of sockets ignores SIGPIPE for the whole process when it is first used. How an application handles a broken
/// pipe is its own affair, and GIO does not depend on it: it sends with MSG_NOSIGNAL. Call this before anything of GIO
/// that uses sockets. Thread-safe.
void initialiseSocketsOfGIO();

}  // namespace krv
