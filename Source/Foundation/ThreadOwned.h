#pragma once

namespace krv {

/// Returns the calling thread's own T, which is created with its first use. Returns null once the thread's objects are
/// being destroyed, because the destructors of others, and on the main thread everything that runs at the exit of the
/// process, may still come here.
template <typename T>
[[nodiscard]] T* threadOwned() {
    thread_local bool ended = false;  // not destroyed, so it can be read until the very end
    struct Holder {
        T object{};
        ~Holder() { ended = true; }
    };
    if (ended) {
        return nullptr;
    }
    thread_local Holder holder;
    return &holder.object;
}

}  // namespace krv
