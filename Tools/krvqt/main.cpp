// krvqt, the command-line client.
#include <chrono>
#include <cstring>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include "CommandLine.h"
#include "Commands.h"
#include "Interruption.h"
#include "Output.h"

namespace {

/// How long the server may take to confirm a cancellation.
constexpr std::chrono::seconds kCancellationTimeout{5};

}  // namespace

int main(int argc, char** argv) {
    krvqt::prepareOutput();
    krvqt::Interruption::watch(kCancellationTimeout);
    krv::Bundle::setApplicationIdentifier("krvqt");
    krv::applyLoggingDefaults();

    krvqt::CommandLine line;
    krvqt::addCommands(line);
    const krvqt::ExitStatus status = line.run({argv + 1, argv + argc});
    if (const int failure = krvqt::outputFailure(); failure != 0) {
        krvqt::say("krvqt: Cannot write the results to standard output: {}.\n", std::strerror(failure));
        return status == krvqt::kDone ? krvqt::kFailed : status;
    }
    return status;
}
