// KRVMediaWorker: the processes in which media code reads files.
//
// The server starts this program once, as the template: it loads FFmpeg's libraries, confines itself and forks the
// workers. A worker enters the sandbox, waits for one job, which comes with open descriptors, performs it and exits.
// All are killed when the server exits.
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

#include <MediaServer/Media/Codec/StaticTables.h>
#include <MediaServer/Protocol/WorkerChannel.h>
#include <MediaServer/Worker/DefaultFont.h>
#include <MediaServer/Worker/MediaWork.h>
#include <MediaServer/Worker/ReusedMemory.h>
#include <MediaServer/Worker/Sandbox.h>
#include <MediaServer/Worker/StartUpPages.h>
#include <MediaServer/Worker/WorkerTemplate.h>

namespace {

using namespace krv::server;

/// The descriptor at which the server has put this end of the template's channel.
constexpr int kControlDescriptor = 3;
/// Lower priority than the desktop.
constexpr int kNiceness = 5;

void work(WorkerChannel channel, const krv::media::Font& font) {
    if (auto job = channel.receive()) {
        // From here on, the job is to blame if this process crashes.
        krv::KRVOperationBase begun;
        begun.setOperationType(krv::OpReadyToProcessRequests);
        channel.send(begun);
        channel.send(*performRequest(*job, channel, font));
        // Before the channel, whose end shows the server that this process has no file open any more. It need not wait
        // for the exit, in which the kernel removes a thousand mappings first.
        job->files.clear();
    }
}

}  // namespace

int main(int argc, char** argv) {
    // Without its server, this process has nothing to do. The server may have exited before this line.
    const pid_t server = argc > 1 ? static_cast<pid_t>(std::atol(argv[1])) : 0;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != server) {
        return 1;
    }
    ::prctl(PR_SET_NAME, "KRVTemplate");
    ::setpriority(PRIO_PROCESS, 0, kNiceness);
    ::close_range(kControlDescriptor + 1, ~0U, 0);
    std::signal(SIGPIPE, SIG_IGN);
    volunteerForOutOfMemory();
    mergeFreedMemory();

    WorkerLimits limits;
    if (const std::uint64_t memory = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 0; memory > 0) {
        limits.memory = memory;
    }
    const krv::media::Font font = mapDefaultFont();
    enterTemplateSandbox(limits);
    krv::media::computeStaticTables();
    dropStartUpPages();
    Descriptor workerEnd = forkWorkers(server, Descriptor(kControlDescriptor));

    // The server has logged what the kernel lacks.
    (void)enterSandbox(limits);
    work(WorkerChannel(std::move(workerEnd)), font);
    // Skips the destructors of FFmpeg's libraries: the kernel frees everything faster.
    ::_exit(0);
}
