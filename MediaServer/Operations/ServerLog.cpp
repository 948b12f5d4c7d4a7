#include <fmt/format.h>

#include <MediaServer/Operations/ServerLog.h>
#include <MediaServer/Operations/ServerOperation.h>

namespace krv::server {

void serverLog(LogFlag flag, std::string_view function, std::string text) {
    const std::uint32_t level = krv_loggingEnabled ? applicationLogLevel.load() : 0;
    if ((level & flag) != 0) {
        DDLog::log({level, flag, kLogContextApplication, "MediaServer", function, 0, std::move(text)});
    }
}

void logOperation(const ServerOperation& operation) {
    const auto seconds = [](auto from, auto to) { return std::chrono::duration<double>(to - from).count(); };
    const bool began = operation.startedAt != ServerOperation::Time{};
    const std::string end = operation.error       ? operation.error->localizedFailureReason()
                            : operation.cancelled ? "cancelled"
                                                  : "completed";
    serverLog(operation.error ? kLogFlagWarning : kLogFlagInfo, "operation",
              fmt::format("{} for process {}: {}; waited {:.2f} s, ran {:.2f} s: {}", operation.request->nameFromType(),
                          operation.client ? operation.client->pid : 0, operation.request->operationStateDescription(),
                          seconds(operation.queuedAt, began ? operation.startedAt : operation.finishedAt),
                          began ? seconds(operation.startedAt, operation.finishedAt) : 0.0, end));
}

}  // namespace krv::server
