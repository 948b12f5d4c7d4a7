#pragma once

#include "WorkerChannel.h"

namespace krv::server {

/// Carries out one job with the files that came with it, reporting progress over the channel. Returns the record that
/// ends it. Throws nothing.
[[nodiscard]] KRVOperationBase::Ref runJob(const WorkerChannel::Message& job, WorkerChannel& channel);

}  // namespace krv::server
