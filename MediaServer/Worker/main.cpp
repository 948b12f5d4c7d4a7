// KRVMediaWorker: the process in which media code reads a file. It enters the sandbox, waits for one job, which comes with
// open descriptors, performs it and exits. It is killed when the server exits.
//
// Arguments: the server's process id, and the limit of writable memory in bytes (0: a default that depends on the
// machine).
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

/// The descriptor at which the server has put this end of the channel.
constexpr int kChannelDescriptor = 3;
/// Lower priority than the desktop.
constexpr int kNiceness = 5;

}  // namespace

int main(int argc, char** argv) {
    // Without its server, a worker has nothing to do. The server may have exited before this line.
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
    krv::server::volunteerForOutOfMemory();
    // The server has logged what the kernel lacks.
    (void)krv::server::enterSandbox(limits);
    krv::server::dropStartUpPages();

    krv::server::WorkerChannel channel{krv::server::Descriptor(kChannelDescriptor)};
    if (auto job = channel.receive()) {
        // From here on, the job is to blame if this process crashes.
        krv::KRVOperationBase begun;
        begun.setOperationType(krv::OpReadyToProcessRequests);
        channel.send(begun);
        channel.send(*krv::server::performRequest(*job, channel));
    }
    // Skips the destructors of FFmpeg's libraries: the kernel frees everything faster.
    ::_exit(0);
}
