#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include <MediaServer/Protocol/Failure.h>

namespace krv::server {

/// One of the operations that read or write movies. Everything in the server that depends on the kind of operation is
/// looked up in this table. The worker has the function that carries each of them out.
struct MediaOperation {
    enum class Sources { One, Many };
    enum class Destination { None, File, Folder };
    /// Which executor threads run it. Short operations are never queued behind long ones.
    enum class Duration { Short, Long };

    OperationType type;
    Sources sources;
    Destination destination;
    Duration duration;
    /// The keys of the arguments that it reads besides its source and destination.
    std::span<const std::string_view* const> arguments;
    /// Checks the arguments that only this operation has; null when it has none.
    std::optional<Failure> (*check)(const KRVOperationBase& request);
};

/// Returns all rows, ordered by type. Thread-safe.
[[nodiscard]] std::span<const MediaOperation> mediaOperations() noexcept;

/// Returns the row of a type, or null if the type is not a media operation. Thread-safe.
[[nodiscard]] const MediaOperation* mediaOperation(std::int32_t type) noexcept;

}  // namespace krv::server
