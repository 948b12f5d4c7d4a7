#include <algorithm>
#include <exception>
#include <system_error>
#include <thread>

#include <KRVQTProcessClient/Platform/SignalsBlocked.h>

#include <MediaServer/Operations/OperationExecutors.h>
#include <MediaServer/Protocol/FailureSentence.h>

namespace krv::server {

using Duration = OperationLedger::Duration;

OperationExecutors::OperationExecutors(OperationLedger& ledger, unsigned longThreads, Work work)
    : ledger_(ledger)
    , work_(std::move(work))
    , usual_(std::max(longThreads, 1U) + 1) {
    try {
        for (unsigned i = 0; i < std::max(longThreads, 1U); ++i) {
            start(Duration::Long);
        }
        start(Duration::Short);
    } catch (const std::system_error&) {
        end();
        throw;
    }
}

OperationExecutors::~OperationExecutors() {
    end();
}

void OperationExecutors::end() {
    ledger_.stop();
    const LockGuard lock(mutex_);
    while (threads_ > 0) {
        ended_.wait(mutex_);
    }
}

void OperationExecutors::start(Duration duration) {
    {
        const LockGuard lock(mutex_);
        ++threads_;
    }
    try {
        // Detached, because replaced threads come and end at any time. The destructor waits for all.
        threadWithoutSignals("KRVOperation", [this, duration] {
            run(duration);
            const LockGuard lock(mutex_);
            --threads_;
            ended_.notify_all();
        }).detach();
    } catch (const std::system_error&) {
        const LockGuard lock(mutex_);
        --threads_;
        throw;
    }
}

bool OperationExecutors::isFull() {
    const LockGuard lock(mutex_);
    return threads_ >= usual_ + kMostReplaced;
}

void OperationExecutors::run(Duration duration) {
    bool replaced = false;
    while (!replaced) {
        const OperationRef operation = ledger_.takeNext(duration);
        if (!operation) {
            return;
        }
        // The ledger drops its own reference when the operation finishes.
        const std::shared_ptr<const Cancellation> cancellation = operation->cancellation;
        const auto replace = [&] {
            if (replaced || isFull()) {
                return;
            }
            try {
                start(duration);
                replaced = true;
            } catch (const std::system_error&) {
                replaced = false;  // without another thread, the others have to wait
            }
        };
        const auto fail = [&](const char* reason) {
            ledger_.finish(*operation,
                           {Outcome::Kind::Failed,
                            makeError(*operation->request, {.cause = FailureCause::InternalError, .reason = reason}),
                            nullptr});
        };
        try {
            ledger_.finish(*operation, work_(
                                           operation->request, *cancellation,
                                           [&](double fraction) { ledger_.report(*operation, fraction); }, replace));
        } catch (const std::exception& problem) {
            // A record that cannot be archived, for instance, or a lack of memory. The thread serves others too.
            fail(problem.what());
        } catch (...) {
            fail("exception of unknown type");
        }
    }
}

}  // namespace krv::server
