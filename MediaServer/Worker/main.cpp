// KRVMediaWorker: the process in which media code meets a file. It shuts itself in, waits for one job, whose files it
// is handed open, carries it out and ends. It also ends when the server does.
//
// Arguments: the server's process id, and the bytes of memory that may be written to (0: what suits this machine).
#include <csignal>
#include <cstdint>
#include <cstdlib>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include <MediaServer/Protocol/WorkerChannel.h>
#include <MediaServer/Worker/MediaWork.h>
#include <MediaServer/Worker/Sandbox.h>
#include <MediaServer/Worker/StartUpPages.h>

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
    ::setpriority(PRIO_PROCESS, 0, kNiceness);
    ::close_range(kChannelDescriptor + 1, ~0U, 0);
    std::signal(SIGPIPE, SIG_IGN);

    krv::server::WorkerLimits limits;
    if (const std::uint64_t memory = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 0; memory > 0) {
        limits.memory = memory;
    }
    // The server has said what its kernel lacks.
    (void)krv::server::enterSandbox(limits);
    krv::server::dropStartUpPages();

    krv::server::WorkerChannel channel{krv::server::Descriptor(kChannelDescriptor)};
    if (auto job = channel.receive()) {
        // From here on it is the job that is to blame for whatever happens.
        krv::KRVOperationBase begun;
        begun.setOperationType(krv::OpReadyToProcessRequests);
        channel.send(begun);
        channel.send(*krv::server::performRequest(*job, channel));
    }
    // Without destroying what the codecs' libraries have put up: the kernel is quicker.
    ::_exit(0);
}
