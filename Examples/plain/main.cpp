// Converts a movie to H.264 and shows how far it has come, with no toolkit: the main thread turns the library's own
// main loop. To be copied.
//
//     PlainExample SOURCE DESTINATION
//
// Ends with 0 when the movie has been converted, else with 1.
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace {

/// Called on the thread that waits for the conversion.
class Printer final : public krv::OperationProgress {
public:
    bool operation(const std::shared_ptr<krv::KRVOperationBase>&, float progress) override {
        std::cout << static_cast<int>(progress * 100) << " %" << std::endl;
        return true;  // false would cancel
    }
};

/// Blocks until the movie has been converted. What went wrong otherwise; empty when nothing did.
std::string convert(krv::KRVQTProcessOperations& client, const std::string& source, const std::string& destination) {
    std::shared_ptr<const krv::Error> error;
    try {
        client.convertMovie(source, destination, krv::VideoConversion::H264, false, std::make_shared<Printer>(),
                            &error);
    } catch (const krv::Exception& exception) {
        return exception.reason();  // the server cannot be reached
    }
    return error ? error->localizedDescription() + ' ' + error->localizedFailureReason() : std::string();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: " << argv[0] << " SOURCE DESTINATION\n";
        return EXIT_FAILURE;
    }
    // The server does not share our working directory.
    const std::string source = std::filesystem::absolute(argv[1]);
    const std::string destination = std::filesystem::absolute(argv[2]);

    // Made on the main thread. It finds the server, starts one if none runs, and looks after it from now on.
    const auto client = krv::KRVQuicktimeProcessClient::defaultClient();

    std::string failure;
    std::thread worker([&] {
        failure = convert(*client, source, destination);
        krv::RunLoop::main().stop();
    });
    krv::RunLoop::main().run();
    worker.join();

    if (!failure.empty()) {
        std::cerr << failure << '\n';
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
