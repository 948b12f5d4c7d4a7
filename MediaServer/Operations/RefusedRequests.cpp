#include <algorithm>

#include <MediaServer/Operations/RefusedRequests.h>
#include <MediaServer/Operations/ServerOperation.h>

namespace krv::server {

std::string RefusedRequests::add(std::shared_ptr<const Error> error) {
    std::string id = newOperationId();
    const LockGuard lock(mutex_);
    if (order_.size() >= kMost) {
        errors_.erase(order_.front());
        order_.pop_front();
    }
    order_.push_back(id);
    errors_[id] = std::move(error);
    return id;
}

std::shared_ptr<const Error> RefusedRequests::find(const std::string& id) const {
    const LockGuard lock(mutex_);
    const auto place = errors_.find(id);
    return place == errors_.end() ? nullptr : place->second;
}

bool RefusedRequests::remove(const std::string& id) {
    const LockGuard lock(mutex_);
    std::erase(order_, id);
    return errors_.erase(id) > 0;
}

}  // namespace krv::server
