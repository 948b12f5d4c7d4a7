#pragma once

#include <MediaServer/Protocol/WorkerChannel.h>

namespace krv::server {

/// Carries out one job with the files that came with it, reporting progress over the channel. Returns the record that
/// ends it: with an error, or with what the operation's `arguments` or `result` are to be. Throws nothing.
[[nodiscard]] KRVOperationBase::Ref carryOut(const WorkerChannel::Message& job, WorkerChannel& channel);

}  // namespace krv::server
