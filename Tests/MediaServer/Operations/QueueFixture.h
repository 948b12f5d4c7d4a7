#pragma once

#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include <MediaServer/Operations/OperationQueue.h>

namespace krv::server {

/// A queue whose work is done by the test: each operation waits until it is told how to end.
class Queue : public testing::Test {
protected:
    struct Job {
        ServerOperation* operation;
        std::function<void(double)> report;
        std::promise<Outcome> end;
    };
    ~Queue() override {
        const LockGuard lock(mutex);
        finishing = true;
        for (const auto& job : jobs) {
            try {
                job->end.set_value({Outcome::Kind::Cancelled, nullptr, nullptr});
            } catch (const std::future_error&) {
                continue;  // ended already
            }
        }
    }
    OperationRef add(const char* source = "/s", ClientKey client = {1, 1}) {
        return queue.add(KRVOperationBase::encodeVideoOperation(source, "/d"), client);
    }
    OperationRef addShort() { return queue.add(KRVOperationBase::provideMetadataFor("/s"), {1, 1}); }
    /// Waits until that many operations have begun.
    std::shared_ptr<Job> begun(std::size_t index) {
        const LockGuard lock(mutex);
        while (jobs.size() <= index) {
            changed.wait(mutex);
        }
        return jobs[index];
    }
    OperationQueue::Snapshot waitForEnd(const std::string& id) {
        const LockGuard lock(mutex);
        for (;;) {
            const auto state = *queue.snapshot(id);
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

    Mutex mutex;
    std::condition_variable_any changed;
    std::vector<std::shared_ptr<Job>> jobs;
    bool finishing = false;
    /// How many operations are at work, and how many have ever been at the same time.
    int atOnce = 0;
    int mostAtOnce = 0;
    std::atomic<std::int64_t> seconds{3600};
    OperationQueue queue{1,
                         [this](ServerOperation& operation, const std::function<void(double)>& report) {
                             const auto job = std::make_shared<Job>();
                             job->operation = &operation;
                             job->report = report;
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
                         },
                         [this] {
                             { const LockGuard lock(mutex); }
                             changed.notify_all();
                         },
                         [this] { return ServerOperation::Time(std::chrono::seconds(seconds.load())); }};
};

}  // namespace krv::server
