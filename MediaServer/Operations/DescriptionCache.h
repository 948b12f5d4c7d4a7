#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include <MediaServer/Files/FileState.h>

namespace krv::server {

/// The latest descriptions of movies (type 8). An application that shows a folder asks for the same ones again and
/// again. Thread-safe.
class DescriptionCache {
public:
    /// The largest size of all remembered records together, in bytes of their archives.
    static constexpr std::size_t kMostBytes = std::size_t{32} << 20;

    explicit DescriptionCache(std::size_t mostBytes = kMostBytes)
        : mostBytes_(mostBytes) {}

    /// Returns a copy of the record that describes the file under this path, or null if it is not known or the file has
    /// changed since.
    [[nodiscard]] KRVOperationBase::Ref find(const std::string& path, const FileState& state);

    /// Remembers a description of the file as it was in this state, unless that is fresh or the description is too
    /// large. Forgets those that have not been asked for the longest.
    void add(const std::string& path, const FileState& state, const KRVOperationBase& record);

private:
    struct Entry {
        std::string path;
        FileState state;
        std::shared_ptr<const Dictionary> description;
        std::optional<Dictionary> result;
        std::size_t bytes;
    };
    void forget(const std::string& path) KRV_REQUIRES(mutex_);

    const std::size_t mostBytes_;
    Mutex mutex_;
    /// The latest first.
    std::list<Entry> entries_ KRV_GUARDED_BY(mutex_);
    std::unordered_map<std::string, std::list<Entry>::iterator> byPath_ KRV_GUARDED_BY(mutex_);
    std::size_t bytes_ KRV_GUARDED_BY(mutex_) = 0;
};

}  // namespace krv::server
