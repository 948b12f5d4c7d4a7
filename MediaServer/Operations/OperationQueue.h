#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <KRVQTProcessClient/Foundation/Mutex.h>

#include <MediaServer/Operations/ServerOperation.h>

namespace krv::server {

/// The media operations that the server knows: waiting, running on one of its lanes, or finished and kept for their
/// results. Any thread.
///
/// A lane is a thread that carries out one operation after another. There is one for each core, and one more for short
/// work, so that what a movie is about is known at once and not when the conversions ahead of it are through.
///
/// Life is always visible. The progress of what runs rises with every report of its worker, and by a little when the
/// report says nothing new; the progress of what waits rises by as much while anything on its kind of lane reports or
/// ends. What says nothing stands still.
class OperationQueue {
public:
    enum class Lane : std::uint8_t { Long, Short };
    /// Where operations of that type run: metadata and interesting times are short, all else is long.
    [[nodiscard]] static Lane laneFor(std::int32_t operationType) noexcept;

    /// What a lane does with an operation. Called on the lane's thread; must not throw.
    using Work = std::function<Outcome(ServerOperation&, const std::function<void(double)>& onProgress)>;
    /// Told, without the lock, when something has changed that a waiting reply may depend on.
    using Changed = std::function<void()>;
    using Clock = std::function<ServerOperation::Time()>;

    /// Beyond this many waiting operations new ones are turned away.
    static constexpr std::size_t kLongestQueue = 1000;
    static constexpr std::chrono::minutes kResultsKept{10};
    /// What progress moves in a second of life that nobody can measure. Clients see a float, whose steps near one are
    /// thirty times smaller.
    static constexpr double kCreepPerSecond = 2e-6;
    /// What a worker reports moves progress up to here. The rest belongs to those that are not done when they thought
    /// they were: the output is still flushed, or the movie is longer than its head says.
    static constexpr double kMostReported = 0.99;

    /// lanes: how many of the long kind.
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
    /// The lanes of one kind.
    struct Kind {
        std::deque<OperationRef> waiting;
        ServerOperation::Time lastLife;
    };
    static constexpr std::size_t kKinds = 2;
    static std::size_t kindOf(const ServerOperation& operation) noexcept;

    void laneLoop(std::size_t kind);
    void carryOut(const OperationRef& operation);
    void reported(ServerOperation& operation, double fraction);
    /// Something on lanes of this kind has moved.
    void creep(Kind& kind) KRV_REQUIRES(mutex_);
    void end(ServerOperation& operation, Outcome outcome) KRV_REQUIRES(mutex_);
    [[nodiscard]] bool cancelLocked(ServerOperation& operation) KRV_REQUIRES(mutex_);
    [[nodiscard]] OperationRef find(const std::string& id) const KRV_REQUIRES(mutex_);

    const Work work_;
    const Changed changed_;
    const Clock clock_;
    mutable Mutex mutex_;
    std::array<std::condition_variable_any, kKinds> wake_;
    std::array<Kind, kKinds> kinds_ KRV_GUARDED_BY(mutex_);
    std::map<std::string, OperationRef> known_ KRV_GUARDED_BY(mutex_);
    /// In the order in which they were taken on.
    std::vector<OperationRef> order_ KRV_GUARDED_BY(mutex_);
    bool closed_ KRV_GUARDED_BY(mutex_) = false;
    bool stopping_ KRV_GUARDED_BY(mutex_) = false;
    std::vector<std::thread> lanes_;
};

}  // namespace krv::server
