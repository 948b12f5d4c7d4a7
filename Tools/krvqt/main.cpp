// krvqt, the command-line client.
#include <chrono>
#include <cstring>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include "CommandLine.h"
#include "Commands.h"
#include "Interruption.h"
#include "Output.h"

namespace {

/// How long the server may take to confirm a cancellation.
constexpr std::chrono::seconds kCancellationTimeout{5};

/// Whatever is thrown is a failure of the operation, such as too little memory.
krvqt::ExitStatus run(std::vector<std::string> arguments) {
    try {
        krvqt::CommandLine line;
        krvqt::addCommands(line);
        return line.run(std::move(arguments));
    } catch (const krv::Exception& exception) {
        krvqt::say("krvqt: {}\n", exception.reason());
    } catch (const std::exception& exception) {
        krvqt::say("krvqt: {}\n", exception.what());
    }
    return krvqt::kFailed;
}

}  // namespace

int main(int argc, char** argv) {
    krvqt::prepareOutput();
    krvqt::Interruption::watch(kCancellationTimeout);
    krv::Bundle::setApplicationIdentifier("krvqt");
    krv::applyLoggingDefaults();

    const krvqt::ExitStatus status = run({argv + 1, argv + argc});
    if (const int failure = krvqt::outputFailure(); failure != 0) {
        krvqt::say("krvqt: Cannot write the results to standard output: {}.\n", std::strerror(failure));
        return status == krvqt::kDone ? krvqt::kFailed : status;
    }
    return status;
}
