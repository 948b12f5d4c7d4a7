#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include <MediaServer/Operations/ClientRegistry.h>

namespace krv::server {

/// What the media operations are doing at one moment, for a person who looks.
struct OperationActivity {
    using Seconds = std::chrono::duration<double>;

    struct Waiting {
        /// Position in the order in which operations were made.
        std::uint64_t number = 0;
        /// Must not be changed.
        KRVOperationBase::Ref request{};
        ClientKey client{};
        Seconds waited{};
    };
    struct Running : Waiting {
        /// As its client sees it: 0 to 1.
        double progress = 0;
        Seconds elapsed{};
        /// An estimate. Empty until there is one.
        std::optional<Seconds> remaining{};
    };
    /// An operation that failed, or a request that was refused.
    struct Problem {
        /// Position in the order in which problems arose.
        std::uint64_t number = 0;
        Seconds ago{};
        /// The complete sentence that the client got, shortened if it is very long.
        std::string sentence{};
    };

    /// In the order in which they were made.
    std::vector<Running> running{};
    /// The first of those that wait, in the same order.
    std::vector<Waiting> waiting{};
    /// How many wait in all.
    std::size_t waitingInAll = 0;
    /// The latest first.
    std::vector<Problem> problems{};
};

}  // namespace krv::server
