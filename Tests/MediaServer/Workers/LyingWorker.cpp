// A worker program that a hostile file has taken over. Its file name says what it sends. When the server has read that,
// it creates a file of that name with ".read" appended. It never exits by itself.
#include <cstdlib>
#include <memory>
#include <string>

#include <fcntl.h>
#include <linux/sockios.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include <MediaServer/Protocol/MediaRequest.h>
#include <MediaServer/Protocol/WorkerChannel.h>
#include <MediaServer/Worker/WorkerTemplate.h>

namespace {

using namespace krv;
using namespace krv::server;

constexpr int kControl = 3;

/// Sends what an honest worker of its request would not, after it has received the request.
void report(const std::string& name, WorkerChannel& channel) {
    if (!channel.receive()) {
        return;
    }
    KRVOperationBase end;
    end.setOperationType(OpReturnResult);
    end.setProgress(1.0F, true);
    if (name == "ErrorOne") {
        end.setError(
            Error::make(std::string(kMediaServerErrorDomain), 1,
                        {{NSLocalizedDescriptionKey, "try again"}, {NSLocalizedFailureReasonErrorKey, "why"}}));
    } else if (name == "HugeErrorNumber") {
        end.setError(Error::make(std::string(kMediaServerErrorDomain), 3,
                                 {{NSLocalizedDescriptionKey, "cannot"},
                                  {NSLocalizedFailureReasonErrorKey, "why"},
                                  {kErrorNumber, std::int64_t{1} << 40}}));
    } else if (name == "TooManyTracks") {
        end.setMetadata(std::make_shared<const Dictionary>());
        Array tracks(kMostMovieTracks + 1, Value(std::make_shared<Dictionary>()));
        end.setResult(std::make_shared<Dictionary>(Dictionary{{kResultMovieTracks, std::move(tracks)}}));
    } else if (name == "TooManyThumbnails") {
        Array pictures(3000, Value(std::make_shared<Dictionary>(Dictionary{
                                 {kResultThumbnailTime, 0.0}, {kThumbnailOffset, 0}, {kThumbnailLength, 1}})));
        end.setResult(std::make_shared<Dictionary>(Dictionary{{kResultThumbnails, std::move(pictures)}}));
    } else {
        // Nothing but the output is missing.
        end.setResult(std::make_shared<Dictionary>(Dictionary{{kResultDroppedTracks, Array()}}));
    }
    channel.send(end);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        return 2;
    }
    const std::string path = argv[0];
    const std::string name = path.substr(path.rfind('/') + 1);
    WorkerChannel channel(forkWorkers(static_cast<pid_t>(std::atol(argv[1])), Descriptor(kControl)));
    if (name == "HalfLength") {
        [[maybe_unused]] const auto sent = ::write(channel.descriptor(), "\x10\0\0", 3);
    } else if (name == "HalfRecord") {
        [[maybe_unused]] const auto sent = ::write(channel.descriptor(), "\x10\0\0\0bplist", 10);
    } else if (name != "Silent") {
        report(name, channel);
    }
    for (int unread = 1; unread > 0;) {
        ::sched_yield();
        if (::ioctl(channel.descriptor(), SIOCOUTQ, &unread) != 0) {
            return 1;
        }
    }
    ::close(::open((path + ".read").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    for (;;) {
        ::pause();
    }
}
