#pragma once

#include <csignal>
#include <functional>
#include <set>
#include <vector>

#include "ServerFixture.h"

namespace krv::server {

/// Stops the server's workers until the observer is called, so that the next operation does not end before that.
inline void stopUntilObserved(Observer& observer, const std::function<std::vector<pid_t>()>& workers) {
    std::set<pid_t> stopped;
    const auto stopOthers = [&] {
        const std::size_t before = stopped.size();
        for (const pid_t worker : workers()) {
            ::kill(worker, SIGSTOP);
            stopped.insert(worker);
        }
        return stopped.size() == before;
    };
    test::waitUntil([&] { return !workers().empty(); });
    test::waitUntil(stopOthers);  // the template, which is among them, may have forked another one before it stopped
    observer.onProgress = [workers](const R&, float) {
        for (const pid_t worker : workers()) {
            ::kill(worker, SIGCONT);
        }
        return true;
    };
}

}  // namespace krv::server
