// Prints the codecs of a movie. Exits with 0 if the server described it, otherwise with 1.
#include <cstdlib>
#include <iostream>
#include <memory>
#include <thread>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

int main(int argc, char** argv) {
    const auto client = krv::KRVQuicktimeProcessClient::defaultClient();
    int status = EXIT_FAILURE;
    std::thread worker([&] {
        try {
            std::shared_ptr<const krv::Error> error;
            const auto description = client->getMetadataFor(argc > 1 ? argv[1] : "", &error);
            if (!error && description) {
                std::cout << (*description)[krv::kMediaMetadataCodec].stringValue() << '\n';
                status = EXIT_SUCCESS;
            } else {
                std::cerr << (error ? error->localizedDescription() : "there is no description") << '\n';
            }
        } catch (const krv::Exception& exception) {
            std::cerr << exception.reason() << '\n';
        }
        krv::RunLoop::main().stop();
    });
    krv::RunLoop::main().run();
    worker.join();
    return status;
}
