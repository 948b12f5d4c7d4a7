#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include "Script.h"
#include "SharedState.h"

namespace krv::test_kit {

/// The response to one request.
struct Response {
    enum class Kind : std::uint8_t { Record, Body, Drop, Hang };
    Kind kind = Kind::Record;
    KRVOperationBase::Ref record{};
    unsigned status = 200;
    std::string body{};
    /// Ends this process when the response has been sent; for Drop, instead of sending one.
    std::function<void()> afterwards{};
};

/// The operations of one server that is played from a script. Thread-safe; a request blocks its thread for as long as
/// the real server would hold the reply.
class FakeOperations {
public:
    using Report = std::function<void(const KRVOperationBase& request, std::uint32_t number)>;

    /// report: called for each request, before it is answered. die: ends this process as a crash would (true) or
    /// orderly. All must outlive this object.
    FakeOperations(const Script& script, SharedState& shared, Report report, std::function<void(bool crash)> die);

    [[nodiscard]] Response respond(const KRVOperationBase::Ref& request);

private:
    using Ref = KRVOperationBase::Ref;
    using TimePoint = std::chrono::steady_clock::time_point;

    /// One number that a client sees, while the operation waits (with a position) or runs.
    struct Step {
        double progress = 0;
        std::optional<std::int64_t> position{};
    };
    struct Operation {
        Ref request;
        Rule rule;
        std::vector<Step> steps;
        std::size_t step = 0;
        /// When the present step was first reported.
        std::optional<TimePoint> shown{};
        bool ended = false;
        bool cancelled = false;
        std::shared_ptr<const Error> error{};
        /// Of an operation that has succeeded.
        Ref record{};
    };

    Response begin(const Ref& request, const Rule& rule) KRV_REQUIRES(mutex_);
    Response respondAsUsual(const Ref& request) KRV_REQUIRES(mutex_);
    Response progress(const Ref& request) KRV_REQUIRES(mutex_);
    Response cancel(const Ref& request) KRV_REQUIRES(mutex_);
    Response result(const Ref& request) KRV_REQUIRES(mutex_);
    Response registration(const Ref& request) KRV_REQUIRES(mutex_);
    Response count(const Ref& request) const KRV_REQUIRES(mutex_);
    Response show(Operation& operation, const Ref& request) const KRV_REQUIRES(mutex_);
    std::optional<Response> advance(Operation& operation, const Ref& request) KRV_REQUIRES(mutex_);
    Response meet(const Rule& rule, const Ref& request, Operation* operation) KRV_REQUIRES(mutex_);
    Response deathOf(const Rule& rule, Response response) const;
    void finish(Operation& operation) KRV_REQUIRES(mutex_);
    Operation* find(const KRVOperationBase& request) KRV_REQUIRES(mutex_);
    std::chrono::milliseconds delayOf(const KRVOperationBase& request);
    [[nodiscard]] bool isClosed(const Rule& rule) const;
    static bool isAtLastStep(const Operation& operation);
    static std::vector<Step> stepsOf(const Rule& rule);
    static Ref replyTo(const KRVOperationBase& request);
    static Ref stateOf(const KRVOperationBase& request, const Operation& operation);
    static Ref unknown(const KRVOperationBase& request);

    const Script& script_;
    SharedState& shared_;
    const Report report_;
    const std::function<void(bool)> die_;
    Mutex mutex_;
    std::condition_variable_any changed_;
    std::map<std::string, Operation> operations_ KRV_GUARDED_BY(mutex_);
    /// The process ids of the registered ones.
    std::set<std::int64_t> clients_ KRV_GUARDED_BY(mutex_);
};

}  // namespace krv::test_kit
