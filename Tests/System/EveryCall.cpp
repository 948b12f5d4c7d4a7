#include "EveryCall.h"

#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace krv::test {
namespace {

using Call = std::function<std::string(KRVQTProcessClientOperations& client, ErrorOut error)>;

std::string yesOrNo(bool value) {
    return value ? "yes" : "no";
}

std::map<std::string, Call> allCalls(const std::string& movie, const std::string& folder) {
    return {
        {"convert-type",
         [=](auto& client, ErrorOut error) {
             client.convertMovie(movie, folder + "/type.mp4", VideoConversion::H264, false, nullptr, error);
             return "returned";
         }},
        {"convert-settings",
         [=](auto& client, ErrorOut error) {
             return yesOrNo(client.convertMovie(movie, folder + "/settings.mp4", nullptr, nullptr, nullptr, error));
         }},
        {"thumbnails",
         [=](auto& client, ErrorOut error) {
             client.createThumbnailsFor(movie, folder, {64, 64}, nullptr, error);
             return "returned";
         }},
        {"metadata",
         [=](auto& client, ErrorOut error) { return yesOrNo(client.getMetadataFor(movie, error) != nullptr); }},
        {"mux",
         [=](auto& client, ErrorOut error) {
             client.muxMovie(movie, folder + "/mux.mp4", nullptr, error);
             return "returned";
         }},
        {"times",
         [=](auto& client, ErrorOut error) {
             return yesOrNo(!client.getInterestingTimesForMovie(movie, false, 0, error).isNull());
         }},
        {"merge",
         [=](auto& client, ErrorOut error) {
             return yesOrNo(client.mergeSources(Value(Array{Value(movie), Value(movie)}), folder + "/merged.mp4", false,
                                                nullptr, error));
         }},
        {"result",
         [](auto& client, ErrorOut error) {
             return yesOrNo(client.getResultOfOperation(KRVOperationBase::shutdownCommand(), error) != nullptr);
         }},
        {"remove-results",
         [](auto& client, ErrorOut) {
             client.removeResultsFromServer(KRVOperationBase::shutdownCommand());
             return "returned";
         }},
        {"pending", [](auto& client, ErrorOut) { return std::to_string(client.operationsPendingCompletion().size()); }},
        {"shutdown", [](auto& client, ErrorOut) { return yesOrNo(client.queueShutdownOfCurrentServer()); }},
        {"registered", [](auto& client, ErrorOut) { return yesOrNo(client.amIRegistered()); }},
        {"ready", [](auto& client, ErrorOut) { return yesOrNo(client.isServerReadyToTakeRequests()); }},
        {"cancel-all",
         [](auto& client, ErrorOut error) {
             client.cancelAllOperations(error);
             return "returned";
         }},
        {"register",
         [](auto& client, ErrorOut) {
             client.registerWithServer();
             return "returned";
         }},
        {"unregister",
         [](auto& client, ErrorOut) {
             client.unregisterFromServer();
             return "returned";
         }},
    };
}

std::string endOf(const Call& call, KRVQTProcessClientOperations& client) {
    std::shared_ptr<const Error> error;
    try {
        const std::string result = call(client, &error);
        return error ? "error " + error->domain() : result;
    } catch (const Exception& exception) {
        return "exception " + exception.name();
    }
}

}  // namespace

void makeEveryCall(KRVQTProcessClientOperations& client, const std::string& movie, const std::string& folder,
                   const std::function<void(const std::string& name, const std::string& end)>& report) {
    std::mutex reporting;
    std::vector<std::thread> threads;
    for (const auto& [name, call] : allCalls(movie, folder)) {
        threads.emplace_back([&, name = name, call = call] {
            const std::string end = endOf(call, client);
            const std::lock_guard lock(reporting);
            report(name, end);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace krv::test
