#pragma once

#include <sys/types.h>

#include <MediaServer/Protocol/Descriptor.h>

namespace krv::server {

/// Forks workers for the server from this process, the template, which has loaded the libraries that a worker needs.
/// Returns in each worker, with its end of the worker channel. In the template it never returns: it exits when the
/// server has closed the control channel.
///
/// Each worker is a child of the server, which must be the subreaper of this process. It has the name "KRVMediaWorker",
/// no descriptors but the standard ones and its channel, and is killed when the server exits. The server gives it a
/// process group of its own.
///
/// Call it on the only thread. server: the process id of the server. control: this end of a TemplateChannel.
[[nodiscard]] Descriptor forkWorkers(pid_t server, Descriptor control);

}  // namespace krv::server
