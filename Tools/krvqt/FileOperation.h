#pragma once

#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include "ExitStatus.h"
#include "Options.h"
#include "ServerAccess.h"

namespace krvqt {

/// How an operation that writes files is reported.
struct FileOperation {
    std::string operation;  ///< name of the command
    std::vector<std::string> sources;
    std::string destination;
    /// Adds further entries to the JSON object of a success. May be null.
    std::function<void(nlohmann::json&)> describe{};
    /// Prints a success on standard output. If null, the destination is printed.
    std::function<void()> print{};
};

/// Makes the call to the server and blocks until it ends. Returns the finished record, or null with the error of a
/// failed operation written. Throws Exception if the server was lost.
using FileCall = std::function<krv::KRVOperationBase::Ref(
    const ServerAccess& access, const std::shared_ptr<krv::OperationProgress>& progress, krv::ErrorOut error)>;

/// Reaches or launches a server, makes the call on a second thread while the main run loop runs, shows progress on
/// standard error, and reports the result and what was dropped. If the server is lost, launches another one and makes
/// the call again, at most three times in all: outputs are all or nothing. Call on the main thread only.
[[nodiscard]] ExitStatus makeFile(const FileOperation& operation, const FileCall& call, const CommonOptions& common);

/// Makes the call to the server and prints the answer. Returns kDone, or kFailed with the error written.
using QuestionCall = std::function<ExitStatus(const ServerAccess& access, krv::ErrorOut error)>;

/// Like makeFile(), for a query without progress. Ctrl-C asks the server to cancel. what: name of the command. Call on
/// the main thread only.
[[nodiscard]] ExitStatus askQuestion(std::string_view what, const QuestionCall& call, const CommonOptions& common);

}  // namespace krvqt
