// Converts a movie to H.264 and prints its progress, without a toolkit: the main thread runs the library's own main
// loop. Copy it as a starting point.
//
//     PlainExample SOURCE DESTINATION
//
// Exits with 0 if the movie was converted, otherwise with 1.
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

/// Blocks until the conversion ends. Returns why it failed, or an empty string.
std::string convert(krv::KRVQTProcessOperations& client, const std::string& source, const std::string& destination) {
    std::shared_ptr<const krv::Error> error;
    try {
        client.convertMovie(source, destination, krv::VideoConversion::H264, false, std::make_shared<Printer>(),
                            &error);
    } catch (const krv::Exception& exception) {
        return exception.reason();  // the server could not be reached
    }
    return error ? error->localizedDescription() : std::string();
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

    // Created on the main thread. Finds the server, launches one if none is running, and replaces it if it is lost.
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
