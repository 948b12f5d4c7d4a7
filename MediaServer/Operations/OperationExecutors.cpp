#include <algorithm>

#include <MediaServer/Operations/OperationExecutors.h>

namespace krv::server {

using Duration = OperationLedger::Duration;

OperationExecutors::OperationExecutors(OperationLedger& ledger, unsigned longThreads, Work work)
    : ledger_(ledger)
    , work_(std::move(work)) {
    for (unsigned i = 0; i < std::max(longThreads, 1U); ++i) {
        threads_.emplace_back([this] { run(Duration::Long); });
    }
    threads_.emplace_back([this] { run(Duration::Short); });
}

OperationExecutors::~OperationExecutors() {
    ledger_.stop();
    for (std::thread& thread : threads_) {
        thread.join();
    }
}

void OperationExecutors::run(Duration duration) {
    while (const OperationRef operation = ledger_.takeNext(duration)) {
        // The ledger drops its own reference when the operation finishes.
        const std::shared_ptr<const Cancellation> cancellation = operation->cancellation;
        ledger_.finish(*operation, work_(operation->request, *cancellation,
                                         [&](double fraction) { ledger_.report(*operation, fraction); }));
    }
}

}  // namespace krv::server
