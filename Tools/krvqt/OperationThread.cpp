#include "OperationThread.h"

#include <exception>
#include <thread>

#include <fmt/format.h>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace krvqt {

ExitStatus runBesideMainLoop(const std::function<ExitStatus()>& work) {
    ExitStatus status = kFailed;
    std::thread worker([&] {
        try {
            status = work();
        } catch (const std::exception& problem) {
            fmt::print(stderr, "krvqt: {}\n", problem.what());
        }
        krv::RunLoop::main().stop();
    });
    krv::RunLoop::main().run();
    worker.join();
    return status;
}

}  // namespace krvqt
