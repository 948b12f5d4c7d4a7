#pragma once

#include <string_view>

/// The names of the exceptions that the library throws, by which a caller tells them apart (see Exception::name()). Two
/// more are beside Exception itself.
namespace krv {

/// The first client of a process was not made on the main thread.
inline constexpr std::string_view kNotMainThreadException = "NotMainThread";

/// This process has too few file descriptors left.
inline constexpr std::string_view kOutOfDescriptorsException = "OutOfDescriptors";

/// A reliable call failed in each of its attempts, because the server could not be reached.
inline constexpr std::string_view kOperationFailedException = "OperationFailed";

/// A call that is not reliable got no usable reply from the server.
inline constexpr std::string_view kTransportCheckException = "TransportCheck";

/// The media server's bundle is missing.
inline constexpr std::string_view kBadBuildException = "BadBuild";

/// A thread, or what it needs, could not be created.
inline constexpr std::string_view kServerRunnerException = "ServerRunner";
inline constexpr std::string_view kHTTPServerDiscoveryException = "HTTPServerDiscovery";
inline constexpr std::string_view kHTTPLoopException = "HTTPLoop";

/// A function was called where it cannot work, such as another thread's run loop.
inline constexpr std::string_view kInternalInconsistencyException = "NSInternalInconsistencyException";

}  // namespace krv
