#include <MediaServer/Operations/DescriptionCache.h>

namespace krv::server {

KRVOperationBase::Ref DescriptionCache::find(const std::string& path, const FileState& state) {
    const LockGuard lock(mutex_);
    const auto found = byPath_.find(path);
    if (found == byPath_.end() || !(found->second->state == state)) {
        return nullptr;
    }
    entries_.splice(entries_.begin(), entries_, found->second);
    const Entry& entry = *found->second;
    auto record = std::make_shared<KRVOperationBase>();
    record->setOperationType(OpReturnResult);
    record->setProgress(1.0F, true);
    record->setMetadata(entry.description);
    if (entry.result) {
        record->setResult(std::make_shared<Dictionary>(*entry.result));
    }
    return record;
}

void DescriptionCache::add(const std::string& path, const FileState& state, const KRVOperationBase& record) {
    const std::size_t bytes = path.size() + record.convertToData().size();
    if (state.isFresh() || bytes > mostBytes_) {
        return;
    }
    const auto result = record.result();
    const LockGuard lock(mutex_);
    forget(path);
    entries_.push_front(
        {path, state, record.metadata(), result ? std::optional(result->mutableCopy()) : std::nullopt, bytes});
    byPath_[path] = entries_.begin();
    bytes_ += bytes;
    while (bytes_ > mostBytes_) {
        forget(std::string(entries_.back().path));
    }
}

void DescriptionCache::forget(const std::string& path) {
    if (const auto found = byPath_.find(path); found != byPath_.end()) {
        bytes_ -= found->second->bytes;
        entries_.erase(found->second);
        byPath_.erase(found);
    }
}

}  // namespace krv::server
