#pragma once

#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <MediaServer/Operations/HeldReplies.h>
#include <MediaServer/Operations/OperationExecutors.h>

namespace krv::server {

/// A ledger whose operations are carried out by the test: each waits until the test decides how it ends. One executor
/// thread for long operations, one for short ones.
class Ledger : public testing::Test {
protected:
    struct Job {
        KRVOperationBase::Ref request;
        const Cancellation* cancellation;
        std::function<void(double)> report;
        std::promise<Outcome> end;
    };
    struct Added {
        std::string id;
        KRVOperationBase::Ref request;
    };

    ~Ledger() override {
        const LockGuard lock(mutex);
        finishing = true;
        for (const auto& job : jobs) {
            try {
                job->end.set_value({Outcome::Kind::Cancelled, nullptr, nullptr});
            } catch (const std::future_error&) {
                continue;  // the test has ended it
            }
        }
    }

    std::optional<Added> add(const KRVOperationBase::Ref& request, ClientKey client) {
        failure.reset();
        const auto id = ledger.add(request, client, failure);
        return id ? std::optional(Added{*id, request}) : std::nullopt;
    }
    std::optional<Added> add(const char* source = "/s", ClientKey client = {1, 1}) {
        return add(KRVOperationBase::encodeVideoOperation(source, "/d"), client);
    }
    /// Adds a short operation with a source of its own.
    std::optional<Added> addShort() {
        return add(KRVOperationBase::provideMetadataFor("/short-" + std::to_string(++shorts)), {1, 1});
    }
    /// Returns the source of what was added or has started: the ledger keeps a copy of each request.
    template <typename T>
    static std::string sourceOf(const T& addedOrJob) {
        return addedOrJob.request->encodingSourceFilename().value_or("");
    }

    /// Waits until the operation that starts as number index has started.
    std::shared_ptr<Job> started(std::size_t index) {
        const LockGuard lock(mutex);
        while (jobs.size() <= index) {
            changed.wait(mutex);
        }
        return jobs[index];
    }
    OperationLedger::Snapshot waitForEnd(const std::string& id) {
        const LockGuard lock(mutex);
        for (;;) {
            const auto state = *ledger.snapshot(id);
            if (state.ended) {
                return state;
            }
            changed.wait(mutex);
        }
    }
    static Outcome completed() {
        auto record = std::make_shared<KRVOperationBase>();
        record->arguments()->set("made", true);
        return {Outcome::Kind::Completed, nullptr, std::move(record)};
    }
    Outcome carryOut(const KRVOperationBase::Ref& request, const Cancellation& cancellation,
                     const std::function<void(double)>& report, const std::function<void()>& onDelay) {
        const auto job = std::make_shared<Job>();
        job->request = request;
        job->cancellation = &cancellation;
        job->report = report;
        if (delays) {
            onDelay();
        }
        auto end = job->end.get_future();
        {
            const LockGuard lock(mutex);
            if (finishing) {
                return Outcome{Outcome::Kind::Cancelled, nullptr, nullptr};
            }
            jobs.push_back(job);
            mostAtOnce = std::max(mostAtOnce, ++atOnce);
        }
        changed.notify_all();
        const Outcome outcome = end.get();
        const LockGuard lock(mutex);
        --atOnce;
        return outcome;
    }

    Mutex mutex;
    std::condition_variable_any changed;
    std::vector<std::shared_ptr<Job>> jobs;
    bool finishing = false;
    /// Whether operations that start from now on are delayed.
    std::atomic<bool> delays{false};
    int shorts = 0;
    /// How many operations run, and how many have run at the same time at most.
    int atOnce = 0;
    int mostAtOnce = 0;
    std::optional<Failure> failure;
    std::atomic<std::int64_t> seconds{3600};
    HeldReplies held;
    OperationLedger ledger{[this] {
                               held.checkAgain();
                               { const LockGuard lock(mutex); }
                               changed.notify_all();
                           },
                           [this] { return ServerOperation::Time(std::chrono::seconds(seconds.load())); }};
    OperationExecutors executors{
        ledger, 1,
        [this](const KRVOperationBase::Ref& request, const Cancellation& cancellation,
               const std::function<void(double)>& report,
               const std::function<void()>& onDelay) { return carryOut(request, cancellation, report, onDelay); }};
};

}  // namespace krv::server
