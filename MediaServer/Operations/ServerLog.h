#pragma once

#include <string>
#include <string_view>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace krv::server {

struct ServerOperation;

/// Writes a line to the library's log in the application's context, if that context's level admits it. Thread-safe.
void serverLog(LogFlag flag, std::string_view function, std::string text);

/// Logs a media operation that has ended: who asked for what, how long it waited and ran, and how it ended.
void logOperation(const ServerOperation& operation);

}  // namespace krv::server
