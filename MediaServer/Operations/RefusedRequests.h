#pragma once

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace krv::server {

/// Why requests for work were not taken on.
///
/// A client that waits for work asks for its progress also when the first reply held an error, and believes the later
/// reply. So a refused request gets an identifier like any other, under which the refusal is told again. Any thread.
class RefusedRequests {
public:
    /// Older ones are forgotten.
    static constexpr std::size_t kMost = 1000;

    /// Returns a new identifier.
    [[nodiscard]] std::string add(std::shared_ptr<const Error> error);
    /// Null for an identifier that is none of these.
    [[nodiscard]] std::shared_ptr<const Error> find(const std::string& id) const;
    /// False for an identifier that is none of these.
    bool remove(const std::string& id);

private:
    mutable Mutex mutex_;
    std::map<std::string, std::shared_ptr<const Error>> errors_ KRV_GUARDED_BY(mutex_);
    std::deque<std::string> order_ KRV_GUARDED_BY(mutex_);
};

}  // namespace krv::server
