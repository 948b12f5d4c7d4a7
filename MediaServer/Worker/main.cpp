// KRVMediaWorker: the process in which media code meets a file. It is handed its files open, does one job after
// another, and ends when the server does.
#include <csignal>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include "EncodeJob.h"
#include "WorkerChannel.h"

namespace {

/// Where the server has put its end of the wire.
constexpr int kChannelDescriptor = 3;
/// Below the desktop's work.
constexpr int kNiceness = 5;

}  // namespace

int main(int argc, char** argv) {
    // A worker without its server has nobody to work for. The parent may have gone before the first line.
    const pid_t server = argc > 1 ? static_cast<pid_t>(std::atol(argv[1])) : 0;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != server) {
        return 1;
    }
    ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    ::setpriority(PRIO_PROCESS, 0, kNiceness);
    ::close_range(kChannelDescriptor + 1, ~0U, 0);
    std::signal(SIGPIPE, SIG_IGN);

    krv::server::WorkerChannel channel{krv::server::Descriptor(kChannelDescriptor)};
    while (auto job = channel.receive()) {
        if (!channel.send(*krv::server::runJob(*job, channel))) {
            break;
        }
    }
    return 0;
}
