#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <KRVQTProcessClient/Foundation/Mutex.h>

#include <MediaServer/Operations/OperationActivity.h>
#include <MediaServer/Operations/ServerOperation.h>
#include <MediaServer/Protocol/Failure.h>
#include <MediaServer/Protocol/MediaOperation.h>
#include <MediaServer/Workers/JobRunner.h>

namespace krv::server {

/// Every operation that a client can ask about by its identifier: media operations that wait, run or have finished,
/// self-tests, and refused requests. Thread-safe.
///
/// A client that follows an operation asks for its progress even if the first reply held an error, and believes the
/// later reply. So a refused request gets an entry like any other, which was finished from the beginning.
///
/// Waiting operations creep while anything on their kind of executor thread reports or finishes (see ShownProgress).
class OperationLedger {
public:
    using Duration = MediaOperation::Duration;
    /// Called without the lock when something has changed that a held reply may wait for.
    using Changed = std::function<void()>;
    using Clock = std::function<ServerOperation::Time()>;

    /// More waiting operations of one duration than this are refused.
    static constexpr std::size_t kLongestQueue = 1000;
    /// Waiting requests may take this many bytes. More are refused.
    static constexpr std::size_t kQueueBudget = std::size_t{256} << 20;
    /// Finished entries may take this many bytes. If they take more, the oldest of those whose result a client has
    /// fetched are dropped first, then the oldest of those that a client knows to have ended, then the oldest.
    static constexpr std::size_t kResultBudget = std::size_t{256} << 20;
    /// What an entry costs besides its records, in bytes.
    static constexpr std::size_t kEntryCost = 2048;
    /// More running self-tests than this are refused.
    static constexpr std::size_t kMostTimedRuns = 1000;
    /// Older refusals than the latest this many are dropped.
    static constexpr std::size_t kMostRefusals = 1000;
    /// Entries are dropped this long after they have finished.
    static constexpr std::chrono::minutes kResultsKept{10};
    /// At most this many waiting operations are described by activity().
    static constexpr std::size_t kMostDescribed = 50;
    /// This many problems are remembered for activity(), each shortened to kLongestSentence bytes.
    static constexpr std::size_t kMostProblems = 20;
    static constexpr std::size_t kLongestSentence = 1000;
    /// A client that does not ask at once when it has been told something waits at least this long.
    static constexpr std::chrono::milliseconds kShortestPolling{400};
    /// A change of progress that is worth a reply.
    static constexpr double kVisibleChange = 0.005;

    explicit OperationLedger(Changed changed, Clock clock = &std::chrono::steady_clock::now,
                             std::size_t resultBudget = kResultBudget);

    // Adding entries.

    /// Queues a valid media request and returns its new identifier. Keeps only the arguments that the operation knows.
    /// Empty, and failure is set, if the ledger is closed or the queue full.
    [[nodiscard]] std::optional<std::string> add(const KRVOperationBase::Ref& request, const ClientKey& client,
                                                 std::optional<Failure>& failure);
    /// Starts a self-test and returns its new identifier. Empty if there are too many.
    [[nodiscard]] std::optional<std::string> addTimed(const TimedRun& run, const ClientKey& client);
    /// Records a refusal and returns its new identifier.
    [[nodiscard]] std::string addRefused(std::shared_ptr<const Error> error);

    // Asking.

    /// The state of an operation as clients see it.
    struct Snapshot {
        double progress = 0;
        bool completed = false;
        bool cancelled = false;
        bool ended = false;
        std::shared_ptr<const Error> error{};
        /// How many operations of its kind run or wait before this one. Empty unless it waits.
        std::optional<std::size_t> before{};
    };
    /// Returns nothing for an unknown identifier. Leaves out Snapshot::before.
    [[nodiscard]] std::optional<Snapshot> snapshot(const std::string& id) const;
    /// Returns all of it, for a reply to a client: if the operation has ended, the client knows it from now on.
    [[nodiscard]] std::optional<Snapshot> tell(const std::string& id);
    /// Returns whether a running operation whose client asks now will probably end within this time: if it goes on as
    /// fast as since its client was told last. False if that was less than kShortestPolling ago or has never been.
    [[nodiscard]] bool endsWithin(std::chrono::milliseconds time, const std::string& id) const;
    /// Returns the record of a media operation with what has come of it so far. Nothing for other entries and unknown
    /// identifiers.
    [[nodiscard]] std::optional<KRVOperationBase::Ref> record(const std::string& id);

    struct Counts {
        std::size_t queued = 0;
        /// Self-tests included.
        std::size_t running = 0;
        /// Media operations only.
        std::size_t finished = 0;
        /// Finished media operations whose client has not been told.
        std::size_t untold = 0;
        /// What the finished entries take, in bytes.
        std::size_t finishedBytes = 0;
    };
    [[nodiscard]] Counts counts() const;
    /// Returns the names of the media operations that wait or run, in order.
    [[nodiscard]] std::vector<std::string> names() const;
    /// Returns what the media operations are doing. Its cost does not depend on how many have finished.
    [[nodiscard]] OperationActivity activity() const;

    // Ending.

    /// Returns false for an unknown identifier. An operation that has ended keeps its outcome.
    bool cancel(const std::string& id);
    void cancelAllOf(const ClientKey& client);
    void cancelEverything();
    /// Drops an entry, after cancelling it if it has not ended. Returns false for an unknown identifier.
    bool remove(const std::string& id);
    void removeAllOf(const ClientKey& client);
    /// Drops entries that finished long enough ago. Returns the clients that have lost their last entry since the
    /// previous call, for whatever reason.
    std::vector<ClientKey> removeOld();
    /// Refuses new media operations and fails the waiting ones, with the code that makes their clients retry.
    void close();

    // For the executor threads.

    /// Blocks until a media operation of this kind waits, marks it running and returns it. Null after stop().
    [[nodiscard]] OperationRef takeNext(Duration duration);
    /// Notes a report of the operation's worker.
    void report(ServerOperation& operation, double fraction);
    void finish(ServerOperation& operation, Outcome outcome);
    /// Cancels everything, refuses new media operations and wakes the executor threads.
    void stop();

private:
    /// The operations that wait for one kind of executor thread.
    struct Line {
        std::deque<OperationRef> waiting;
        std::vector<OperationRef> running;
        /// What the waiting requests take.
        std::size_t bytes = 0;
        /// When something of this kind last reported or finished.
        ServerOperation::Time lastLife;
    };
    static constexpr std::size_t kKinds = 2;
    static std::size_t kindOf(const ServerOperation& operation) noexcept;

    std::string insert(const OperationRef& operation) KRV_REQUIRES(mutex_);
    void erase(const ServerOperation& operation) KRV_REQUIRES(mutex_);
    [[nodiscard]] OperationRef find(const std::string& id) const KRV_REQUIRES(mutex_);
    /// Adds an entry to the counts, or takes it out. Call both around each change of its state.
    void count(const ServerOperation& operation) const KRV_REQUIRES(mutex_);
    void uncount(const ServerOperation& operation) const KRV_REQUIRES(mutex_);
    void tally(const ServerOperation& operation, std::size_t one) const KRV_REQUIRES(mutex_);
    /// Brings a self-test up to date.
    void refresh(ServerOperation& operation) const KRV_REQUIRES(mutex_);
    /// Brings all self-tests up to date.
    void dropEndedTimedRuns() const KRV_REQUIRES(mutex_);
    /// Drops finished entries until the others are well within the budget. Keeps the newest.
    void keepWithinBudget(const ServerOperation& newest) KRV_REQUIRES(mutex_);
    [[nodiscard]] static Snapshot snapshotOf(const ServerOperation& operation);
    [[nodiscard]] std::size_t countBefore(const ServerOperation& waiting) const KRV_REQUIRES(mutex_);
    void creep(Line& line) KRV_REQUIRES(mutex_);
    void remember(const Error& problem) KRV_REQUIRES(mutex_);
    void finishLocked(ServerOperation& operation, Outcome outcome) KRV_REQUIRES(mutex_);
    /// Returns whether the operation has ended by this.
    bool cancelLocked(ServerOperation& operation) KRV_REQUIRES(mutex_);

    const Changed changed_;
    const Clock clock_;
    const std::size_t resultBudget_;
    mutable Mutex mutex_;
    std::array<std::condition_variable_any, kKinds> wake_;
    std::array<Line, kKinds> lines_ KRV_GUARDED_BY(mutex_);
    std::map<std::string, OperationRef, std::less<>> byId_ KRV_GUARDED_BY(mutex_);
    /// By ServerOperation::number.
    std::map<std::uint64_t, OperationRef> inOrder_ KRV_GUARDED_BY(mutex_);
    std::deque<std::string> refusals_ KRV_GUARDED_BY(mutex_);
    struct Problem {
        std::uint64_t number;
        ServerOperation::Time when;
        std::string sentence;
    };
    /// The latest last.
    std::deque<Problem> problems_ KRV_GUARDED_BY(mutex_);
    std::uint64_t lastProblem_ KRV_GUARDED_BY(mutex_) = 0;
    /// Self-tests that have not ended.
    mutable std::set<std::shared_ptr<ServerOperation>> timed_ KRV_GUARDED_BY(mutex_);
    mutable Counts counts_ KRV_GUARDED_BY(mutex_);
    /// Clients of entries that have been dropped since the last removeOld().
    std::set<ClientKey> losers_ KRV_GUARDED_BY(mutex_);
    std::uint64_t lastNumber_ KRV_GUARDED_BY(mutex_) = 0;
    bool closed_ KRV_GUARDED_BY(mutex_) = false;
    bool stopping_ KRV_GUARDED_BY(mutex_) = false;
};

}  // namespace krv::server
