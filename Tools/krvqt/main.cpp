// krvqt, the command-line client.
#include <chrono>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include "CommandLine.h"
#include "Commands.h"
#include "Interruption.h"

namespace {

/// How long the server may take to confirm a cancellation.
constexpr std::chrono::seconds kCancellationTimeout{5};

}  // namespace

int main(int argc, char** argv) {
    krvqt::Interruption::watch(kCancellationTimeout);
    krv::Bundle::setApplicationIdentifier("krvqt");
    krv::applyLoggingDefaults();

    krvqt::CommandLine line;
    krvqt::addCommands(line);
    return line.run({argv + 1, argv + argc});
}
