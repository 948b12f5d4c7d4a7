#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// The main arguments that a record's state description contains. None would be a macro after Xlib's headers.
enum class StateSummary : std::uint8_t { NoArguments, ClientPID, Encoding, File, Merge };

// The table of operation types: value, enumerator, selector of the factory, name for people, and contents of the state
// description. There is no other.
// clang-format off
#define KRV_OPERATION_TYPES(ROW)                                                                                                          \
    ROW(1, OpNumberOfOperations, "numberOfOperationsOperation", "Number of operations queued", NoArguments)                                \
    ROW(2, OpReadyToProcessRequests, "readyToProcessRequestOperation", "Ready to process requests", NoArguments)                           \
    ROW(3, OpRegisterWithServer, "registerWithServerOperation", "Register with server", ClientPID)                                         \
    ROW(4, OpUnregisterFromServer, "unregisterFromServerOperation", "Unregister from server", ClientPID)                                   \
    ROW(5, OpAmIRegistered, "amIRegisteredOperation", "Is this ClientID registered with server", NoArguments)                              \
    ROW(6, OpEncodeVideo, "encodeVideoOperation:dest:", "Encode video", Encoding)                                                          \
    ROW(7, OpCreateThumbnails, "createThumbnailsForVideo:toFolder:withSize:", "Create thumbnails", File)                                   \
    ROW(8, OpProvideMetadata, "provideMetadataFor:", "Get poster frame and metadata", File)                                                \
    ROW(9, OpMuxAudioTo2ch, "muxAudioTo2chOperation:dest:", "Mux movie audio to 2ch", File)                                                \
    ROW(10, OpMergeSources, "mergeSourcesOperation:dest:useShortestTrack:", "Merge multiple video sources to single movie", Merge)         \
    ROW(11, OpGetInterestingTimes, "getInterestingTimesOperation:specificTrack:trackIndex:", "Get Interesting Times", File)                \
    ROW(12, OpCancelOperation, "cancelOperation:", "Cancel operation", NoArguments)                                                        \
    ROW(13, OpCancelAllOperations, "cancelAllOperationsOperation", "Cancel all operations", NoArguments)                                   \
    ROW(14, OpProgressAndCompletion, "progressAndCompletionOperation:", "Progress / Completion", NoArguments)                              \
    ROW(15, OpReturnResult, "returnResultForOperation:", "Return operation result", NoArguments)                                           \
    ROW(16, OpRemoveReturnResult, "removeReturnResultForOperation:", "Remove return operation result", NoArguments)                        \
    ROW(17, OpShutdownServer, "shutdownCommand", "Shutdown Server", NoArguments)                                                           \
    ROW(-559038737, OpHTTPServerTesting, "httpServerTestingOperation", "HTTP Server Testing", NoArguments)
// clang-format on

enum OperationType : std::int32_t {
#define KRV_ROW(value, enumerator, factory, name, summary) enumerator = (value),
    KRV_OPERATION_TYPES(KRV_ROW)
#undef KRV_ROW
};
static_assert(static_cast<std::uint32_t>(OpHTTPServerTesting) == 0xDEADBEEFU);

struct OperationTypeInfo {
    OperationType type;
    std::string_view factory;
    std::string_view name;
    StateSummary summary;
};

/// Returns all types, in the order of the table.
[[nodiscard]] KRV_EXPORT std::span<const OperationTypeInfo> operationTypes() noexcept;
/// Returns the row of a type, or nullptr if the value is not a type.
[[nodiscard]] KRV_EXPORT const OperationTypeInfo* operationTypeInfo(std::int32_t type) noexcept;

}  // namespace krv
