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

/// An operation that makes files, as it is reported.
struct FileOperation {
    std::string operation;  ///< the command's name
    std::vector<std::string> sources;
    std::string destination;
    /// What JSON tells of a success beyond that; may be null.
    std::function<void(nlohmann::json&)> describe{};
    /// The lines on standard output that tell of a success; the destination when this is null.
    std::function<void()> print{};
};

/// Asks the server for it. Writes the error that it ended with, or raises when the server went away.
using FileCall = std::function<void(const ServerAccess& access, const std::shared_ptr<krv::OperationProgress>& progress,
                                    krv::ErrorOut error)>;

/// Reaches or launches a server, makes the call beside the main run loop with progress on standard error, and reports
/// how it ended. On the main thread.
[[nodiscard]] ExitStatus makeFile(const FileOperation& operation, const FileCall& call, const CommonOptions& common);

/// The same for a question, which has no progress worth showing: makes the call and lets it print the answer itself.
/// Ctrl-C asks the server to cancel. what: the command's name. call: kDone, or kFailed with the error written.
using QuestionCall = std::function<ExitStatus(const ServerAccess& access, krv::ErrorOut error)>;
[[nodiscard]] ExitStatus askQuestion(std::string_view what, const QuestionCall& call, const CommonOptions& common);

}  // namespace krvqt
