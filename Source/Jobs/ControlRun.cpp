#include <deque>
#include <string_view>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/Jobs/ControlRun.h>
#include <KRVQTProcessClient/Jobs/Failures.h>
#include <KRVQTProcessClient/Jobs/JobResults.h>
#include <KRVQTProcessClient/Monitoring/KRVProcessMonitor.h>

namespace krv {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
using Next = ControlPlan::Next;

constexpr Clock::Duration kTimeout = 5s;

Next failed(Failure failure) {
    return {.request = {}, .outcome = {.value = nullptr, .failure = std::move(failure)}};
}

Next noUsableResponse(std::string why) {
    return failed(
        {Failure::Kind::Unreachable,
         {.message = "The media server does not respond.", .cause = std::move(why), .suggestion = "Try again."}});
}

template <typename T>
Next brought(T value) {
    return {.request = {}, .outcome = {.value = std::make_shared<const T>(std::move(value))}};
}

/// Returns the object at /status, or null.
Json statusIn(const HTTPResponse& response) {
    if (!response.body || response.error) {
        return nullptr;
    }
    const auto* const text = reinterpret_cast<const char*>(response.body->data());
    Json status = Json::parse(text, text + response.body->size(), nullptr, false);
    return status.is_object() && status.contains("clients") ? status : Json(nullptr);
}

std::int64_t numberIn(const Json& status, const char* key) {
    const auto place = status.find(key);
    return place != status.end() && place->is_number() ? place->get<std::int64_t>() : 0;
}

std::optional<SandboxSupport> sandboxIn(const Json& status) {
    const auto sandbox = status.find("sandbox");
    if (sandbox == status.end() || !sandbox->is_object()) {
        return std::nullopt;
    }
    return SandboxSupport{.landlock = numberIn(*sandbox, "landlock"),
                          .seccomp = sandbox->value("seccomp", Json()) == true};
}

std::vector<std::int64_t> clientsIn(const Json& status) {
    std::vector<std::int64_t> clients;
    for (const Json& client : status["clients"]) {
        if (client.is_number_integer()) {
            clients.push_back(client.get<std::int64_t>());
        }
    }
    return clients;
}

ServerStatus serverStatus(const Json& status, const KRVOperationBase& operations) {
    const auto version = status.find("version");
    const auto uptime = status.find("uptime");
    ServerStatus result{.version = version != status.end() && version->is_string() ? version->get<std::string>()
                                                                                   : std::string(),
                        .pid = numberIn(status, "pid"),
                        .port = numberIn(status, "port"),
                        .uptime = Seconds(uptime != status.end() && uptime->is_number() ? uptime->get<double>() : 0),
                        .clients = clientsIn(status),
                        .queued = numberIn(status, "queued"),
                        .running = numberIn(status, "running"),
                        .finished = numberIn(status, "finished"),
                        .workers = numberIn(status, "workers"),
                        .sandbox = sandboxIn(status),
                        .json = status.dump(-1, ' ', false, Json::error_handler_t::replace)};
    if (const auto names = operations.numOpsNames()) {
        for (const Value& name : *names) {
            result.operations.push_back(name.stringValue());
        }
    }
    return result;
}

Next requestNext(long port, const KRVOperationBase& record) {
    return {.request = requestTo(port, record, kTimeout), .outcome = {}};
}

}  // namespace

ControlPlan serverStatusPlan() {
    return {[operations = KRVOperationBase::Ref()](long port, const HTTPResponse* response) mutable -> Next {
        if (!response) {
            return requestNext(port, *KRVOperationBase::numberOfOperationsOperation());
        }
        if (!operations) {
            const ServerReply reply = replyIn(*response);
            if (reply.kind != ServerReply::Kind::Record) {
                return noUsableResponse(reply.why);
            }
            operations = reply.record;
            return {.request = statusRequest(port, kTimeout), .outcome = {}};
        }
        const Json status = statusIn(*response);
        return status.is_null() ? noUsableResponse(response->error.value_or("its status is not a status object"))
                                : brought(serverStatus(status, *operations));
    }};
}

ControlPlan cancelAllWorkPlan() {
    struct Course {
        bool hasStatus = false;
        std::deque<std::int64_t> clients;
        std::int64_t client = 0;
    };
    return {[course = Course()](long port, const HTTPResponse* response) mutable -> Next {
        if (!response) {
            return {.request = statusRequest(port, kTimeout), .outcome = {}};
        }
        if (!std::exchange(course.hasStatus, true)) {
            const Json status = statusIn(*response);
            if (status.is_null()) {
                return noUsableResponse(response->error.value_or("its status is not a status object"));
            }
            for (const std::int64_t client : clientsIn(status)) {
                course.clients.push_back(client);
            }
        } else {
            const ServerReply reply = replyIn(*response);
            if (!reply.record) {
                return noUsableResponse(reply.why);
            }
            // A client that has exited since has nothing left to cancel.
            const auto error = reply.record->error();
            if (error && KRVProcessMonitor::doesProcessExist(static_cast<pid_t>(course.client), "")) {
                return failed(failureFrom(*error));
            }
        }
        if (course.clients.empty()) {
            return brought(Done{});
        }
        // The operation cancels the work of one client, so it is sent once on behalf of each.
        course.client = course.clients.front();
        course.clients.pop_front();
        const auto operation = KRVOperationBase::cancelAllOperationsOperation();
        operation->setRegInfoPID(course.client);
        return requestNext(port, *operation);
    }};
}

ControlPlan shutDownServerPlan() {
    return {[](long port, const HTTPResponse* response) -> Next {
        if (!response) {
            return requestNext(port, *KRVOperationBase::shutdownCommand());
        }
        const ServerReply reply = replyIn(*response);
        if (!reply.record) {
            return noUsableResponse(reply.why);
        }
        const auto error = reply.record->error();
        return error ? failed(failureFrom(*error)) : brought(Done{});
    }};
}

ControlRun::ControlRun(JobServices services, std::shared_ptr<JobState> state, std::function<ControlPlan()> makePlan,
                       Clock::Duration patience)
    : services_(services)
    , state_(std::move(state))
    , makePlan_(std::move(makePlan))
    , patience_(patience) {}

void ControlRun::start() {
    waiting_ = services_.link.whenReady({.patience = patience_,
                                         .answer =
                                             [self = shared_from_this()](std::optional<Failure> failure) {
                                                 self->waiting_.reset();
                                                 if (failure) {
                                                     self->end({.value = nullptr, .failure = std::move(failure)});
                                                     return;
                                                 }
                                                 self->port_ = self->services_.link.port();
                                                 self->plan_ = self->makePlan_();
                                                 self->proceed(nullptr);
                                             },
                                         .waiting = [](const std::string&) {}});
}

void ControlRun::proceed(const HTTPResponse* response) {
    Next next = plan_.step(port_, response);
    if (!next.request) {
        if (next.outcome.failure && next.outcome.failure->kind() == Failure::Kind::Unreachable) {
            services_.link.lost(port_);
            if (!std::exchange(repeated_, true)) {
                start();
                return;
            }
        }
        end(std::move(next.outcome));
        return;
    }
    request_ = services_.http.send(*std::move(next.request), [self = shared_from_this()](const HTTPResponse& arrived) {
        self->request_.reset();
        self->proceed(&arrived);
    });
}

void ControlRun::cancel() {
    end({.value = nullptr, .failure = cancelled("The request", {})});
}

void ControlRun::end(JobCore::Outcome outcome) {
    if (waiting_) {
        services_.link.drop(*std::exchange(waiting_, std::nullopt));
    }
    if (request_) {
        services_.http.drop(*std::exchange(request_, std::nullopt));
    }
    state_->end(std::move(outcome));
}

}  // namespace krv
