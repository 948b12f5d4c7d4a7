#include "LoopReach.h"

#include <utility>
#include <vector>

#include <KRVQTProcessClient/Foundation/ThreadOwned.h>

namespace krv {
namespace {

/// The reference that this thread has given out. It is created after the thread's loop and so destroyed before it.
struct GivenOut {
    ~GivenOut() {
        for (const auto& reach : reaches) {
            if (const auto alive = reach.lock()) {
                alive->threadHasEnded();
            }
        }
    }
    std::vector<std::weak_ptr<LoopReach>> reaches;
};

}  // namespace

std::shared_ptr<LoopReach> LoopReach::main() {
    return std::make_shared<LoopReach>(RunLoop::main());
}

std::shared_ptr<LoopReach> LoopReach::current() {
    RunLoop& loop = RunLoop::current();
    auto reach = std::make_shared<LoopReach>(loop);
    if (!RunLoop::isMainThread()) {  // the main loop outlives everything
        if (auto* const givenOut = threadOwned<GivenOut>()) {
            std::erase_if(givenOut->reaches, [](const auto& old) { return old.expired(); });
            givenOut->reaches.push_back(reach);
        } else {
            reach->threadHasEnded();
        }
    }
    return reach;
}

}  // namespace krv
