#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <curl/curl.h>
#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/ExceptionNames.h>
#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Logging/Log.h>
#include <KRVQTProcessClient/Platform/FreeDescriptors.h>
#include <KRVQTProcessClient/Platform/HTTPLoop.h>
#include <KRVQTProcessClient/Platform/SignalsBlocked.h>

#include "CurlConnection.h"

namespace krv {
namespace {

using namespace std::chrono_literals;

constexpr LogSite kSite{"Source/Platform/HTTPLoop", Selector("run")};
/// How long the thread waits if there is nothing to do. Any call wakes it.
constexpr int kLongestWait = 60'000;
/// Without the pair of sockets that wakes it, the thread would sleep through every call.
constexpr int kDescriptors = 4;
/// Idle connections that are kept open.
constexpr long kConnections = 16;

template <typename Callback>
void guarded(const Callback& callback) {
    try {
        callback();
    } catch (const std::exception& exception) {
        KRV_LOG(kLogFlagError, kSite, "A task has failed: {}", exception.what());
    } catch (...) {
        KRV_LOG(kLogFlagError, kSite, "A task has failed with an exception of an unknown kind");
    }
}

class CurlHTTPLoop final : public HTTPLoop {
public:
    explicit CurlHTTPLoop(const char* name)
        : multi_(curl_multi_init()) {
        if (!multi_) {
            throw Exception(std::string(kHTTPLoopException), "Cannot create an HTTP loop: out of memory");
        }
        curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, kConnections);
        try {
            thread_ = threadWithoutSignals(name, [this] { run(); });
        } catch (const std::system_error& failure) {
            curl_multi_cleanup(multi_);
            throw Exception(std::string(kHTTPLoopException),
                            fmt::format("The thread of an HTTP loop cannot be started: {}", failure.what()));
        }
    }
    ~CurlHTTPLoop() override {
        stopping_ = true;
        curl_multi_wakeup(multi_);
        thread_.join();
        for (auto& [token, request] : requests_) {
            curl_multi_remove_handle(multi_, request.connection->handle());
        }
        requests_.clear();
        curl_multi_cleanup(multi_);
    }
    CurlHTTPLoop(const CurlHTTPLoop&) = delete;
    CurlHTTPLoop& operator=(const CurlHTTPLoop&) = delete;

    void post(Task task) override {
        {
            const LockGuard lock(mutex_);
            tasks_.push_back(std::move(task));
        }
        curl_multi_wakeup(multi_);
    }

    Token after(Clock::Duration delay, Task task) override {
        const Token token = ++lastToken_;
        timers_.emplace(token, Timer{timePointAfter(Clock::steady().now(), delay), std::move(task)});
        return token;
    }

    Token send(HTTPRequest request, Reply reply) override {
        const Token token = ++lastToken_;
        Request& sent = requests_[token];
        sent.request = std::move(request);
        sent.reply = std::move(reply);
        sent.connection = takeConnection();
        if (auto refusal = sent.connection->prepare(sent.request)) {
            refuse(token, *std::move(refusal));
        } else if (curl_easy_setopt(sent.connection->handle(), CURLOPT_PRIVATE, &sent) != CURLE_OK ||
                   curl_multi_add_handle(multi_, sent.connection->handle()) != CURLM_OK) {
            refuse(token, "Out of memory.");
        } else {
            sent.token = token;
            sent.active = true;
        }
        return token;
    }

    void drop(Token token) override {
        timers_.erase(token);
        if (const auto place = requests_.find(token); place != requests_.end()) {
            if (place->second.active) {
                curl_multi_remove_handle(multi_, place->second.connection->handle());
            }
            requests_.erase(place);
        }
    }

private:
    struct Timer {
        Clock::TimePoint due;
        Task task;
    };
    struct Request {
        Token token = 0;
        HTTPRequest request{};
        Reply reply{};
        std::unique_ptr<CurlConnection> connection{};
        bool active = false;
    };

    std::unique_ptr<CurlConnection> takeConnection() {
        if (spares_.empty()) {
            // Requests share the connections, so one that this request did not open may not have been checked.
            return std::make_unique<CurlConnection>(CurlConnection::Check::EachRequest);
        }
        auto connection = std::move(spares_.back());
        spares_.pop_back();
        return connection;
    }

    void refuse(Token token, std::string why) {
        after(0s, [this, token, why = std::move(why)] {
            if (const auto place = requests_.find(token); place != requests_.end()) {
                const auto request = std::move(place->second);
                requests_.erase(place);
                request.reply({.body = {}, .status = 0, .error = why});
            }
        });
    }

    void run() {
        while (!stopping_) {
            runTasks();
            runTimers();
            transfer();
            if (!stopping_ && !hasTasks()) {
                curl_multi_poll(multi_, nullptr, 0, dueIn(), nullptr);
            }
        }
    }

    bool hasTasks() {
        const LockGuard lock(mutex_);
        return !tasks_.empty();
    }

    void runTasks() {
        std::vector<Task> tasks;
        {
            const LockGuard lock(mutex_);
            tasks.swap(tasks_);
        }
        for (const Task& task : tasks) {
            guarded(task);
        }
    }

    void runTimers() {
        const auto now = Clock::steady().now();
        std::vector<Token> due;
        for (const auto& [token, timer] : timers_) {
            if (timer.due <= now) {
                due.push_back(token);
            }
        }
        for (const Token token : due) {
            if (auto timer = timers_.extract(token)) {  // unless a timer before it has dropped it
                guarded(timer.mapped().task);
            }
        }
    }

    /// Returns the milliseconds until the next timer is due.
    [[nodiscard]] int dueIn() const {
        auto next = Clock::steady().now() + std::chrono::milliseconds(kLongestWait);
        for (const auto& [token, timer] : timers_) {
            next = std::min(next, timer.due);
        }
        return static_cast<int>(std::max<std::int64_t>(
            std::chrono::ceil<std::chrono::milliseconds>(next - Clock::steady().now()).count(), 0));
    }

    void transfer() {
        int running = 0;
        curl_multi_perform(multi_, &running);
        int left = 0;
        while (CURLMsg* const message = curl_multi_info_read(multi_, &left)) {
            if (message->msg != CURLMSG_DONE) {
                continue;
            }
            CURL* const handle = message->easy_handle;
            const CURLcode code = message->data.result;  // the message does not outlast the next call
            Request* done = nullptr;
            curl_easy_getinfo(handle, CURLINFO_PRIVATE, &done);
            curl_multi_remove_handle(multi_, handle);
            auto ended = requests_.extract(done->token);
            HTTPResponse response = ended.mapped().connection->finish(code);
            spares_.push_back(std::move(ended.mapped().connection));
            guarded([&] { ended.mapped().reply(std::move(response)); });
        }
    }

    CURLM* const multi_;
    std::thread thread_;
    std::atomic<bool> stopping_{false};
    Mutex mutex_;
    std::vector<Task> tasks_ KRV_GUARDED_BY(mutex_);
    // For the loop's thread.
    std::map<Token, Timer> timers_;
    std::map<Token, Request> requests_;
    std::vector<std::unique_ptr<CurlConnection>> spares_;
    Token lastToken_ = 0;
};

}  // namespace

HTTPLoop::~HTTPLoop() = default;

std::unique_ptr<HTTPLoop> HTTPLoop::start(const char* name) {
    requireFreeDescriptors(kDescriptors, "an HTTP loop");
    (void)HTTPClient::shared();  // initialises the library
    return std::make_unique<CurlHTTPLoop>(name);
}

}  // namespace krv
