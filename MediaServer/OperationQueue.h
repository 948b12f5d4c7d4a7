#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <KRVQTProcessClient/Foundation/Mutex.h>

#include "ServerOperation.h"

namespace krv::server {

/// The media operations that the server knows: waiting, running on one of its lanes, or finished and kept for their
/// results. Any thread.
///
/// A lane is a thread that carries out one operation after another; there is one for each core. Life is always visible:
/// the progress of what waits creeps while anything ahead of it moves.
class OperationQueue {
public:
    /// What a lane does with an operation. Called on the lane's thread; must not throw.
    using Work = std::function<Outcome(ServerOperation&, const std::function<void(double)>& onProgress)>;
    /// Told, without the lock, when something has changed that a waiting reply may depend on.
    using Changed = std::function<void()>;
    using Clock = std::function<ServerOperation::Time()>;

    /// Beyond this many waiting operations new ones are turned away.
    static constexpr std::size_t kLongestQueue = 1000;
    static constexpr std::chrono::minutes kResultsKept{10};
    /// What a waiting operation's progress moves in a second of life ahead of it.
    static constexpr double kCreepPerSecond = 2e-6;

    OperationQueue(unsigned lanes, Work work, Changed changed, Clock clock = &std::chrono::steady_clock::now);
    /// Cancels what runs and waits for the lanes.
    ~OperationQueue();
    OperationQueue(const OperationQueue&) = delete;
    OperationQueue& operator=(const OperationQueue&) = delete;

    /// Takes an operation on and returns it with a new id; null when the queue is full or closed.
    [[nodiscard]] OperationRef add(const KRVOperationBase::Ref& request, const ClientKey& client);

    /// What a client is to be told of an operation.
    struct Snapshot {
        double progress;
        bool completed;
        bool cancelled;
        bool ended;
        std::shared_ptr<const Error> error;
    };
    /// Nothing for an id that is not known.
    [[nodiscard]] std::optional<Snapshot> snapshot(const std::string& id) const;
    /// The same, and notes that the client learns of the end by it.
    [[nodiscard]] std::optional<Snapshot> tell(const std::string& id);
    /// The finished record, nothing for an unknown id.
    [[nodiscard]] std::optional<KRVOperationBase::Ref> finishedRecord(const std::string& id) const;

    /// False for an unknown id. What has ended stays as it ended.
    bool cancel(const std::string& id);
    void cancelAllOf(const ClientKey& client);
    void cancelEverything();
    /// Forgets a finished operation; cancels one that has not ended. False for an unknown id.
    bool remove(const std::string& id);
    void removeAllOf(const ClientKey& client);
    /// Forgets what was finished long enough ago. Returns the clients that have no operation left by that.
    std::vector<ClientKey> removeOld();

    /// Takes nothing more on and fails what waits, with the error that sends its client elsewhere.
    void close();

    struct Counts {
        std::size_t queued = 0;
        std::size_t running = 0;
        std::size_t finished = 0;
        /// Ended, but the client has not been told yet.
        std::size_t untold = 0;
    };
    [[nodiscard]] Counts counts() const;
    /// Names of the operations that wait and run, in order.
    [[nodiscard]] std::vector<std::string> names() const;

private:
    void laneLoop();
    void carryOut(const OperationRef& operation);
    void reported(ServerOperation& operation, double fraction);
    void end(ServerOperation& operation, Outcome outcome) KRV_REQUIRES(mutex_);
    [[nodiscard]] bool cancelLocked(ServerOperation& operation) KRV_REQUIRES(mutex_);
    [[nodiscard]] OperationRef find(const std::string& id) const KRV_REQUIRES(mutex_);

    const Work work_;
    const Changed changed_;
    const Clock clock_;
    mutable Mutex mutex_;
    std::condition_variable_any wake_;
    std::deque<OperationRef> waiting_ KRV_GUARDED_BY(mutex_);
    std::map<std::string, OperationRef> known_ KRV_GUARDED_BY(mutex_);
    /// In the order in which they were taken on.
    std::vector<OperationRef> order_ KRV_GUARDED_BY(mutex_);
    ServerOperation::Time lastLife_ KRV_GUARDED_BY(mutex_);
    bool closed_ KRV_GUARDED_BY(mutex_) = false;
    bool stopping_ KRV_GUARDED_BY(mutex_) = false;
    std::vector<std::thread> lanes_;
};

}  // namespace krv::server
