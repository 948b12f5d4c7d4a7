#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <sys/types.h>

#include <KRVQTProcessClient/Foundation/Export.h>

/// The service record: a small file in the user's runtime folder by which clients find a running server at once.
///
/// The file has one "key=value" per line: name, port, pid, start, pidns and version. Reading it proves nothing: its
/// server may have been killed, and another process may have the pid or the port since. A reader must verify what it
/// says.
namespace krv {

struct ServiceRecord {
    /// The name under which clients look for the service.
    std::string name;
    std::uint16_t port = 0;
    pid_t pid = 0;
    /// See ProcessInfo.
    std::uint64_t startTime = 0;
    /// See pidNamespace().
    std::uint64_t pidNamespace = 0;
    std::string version;

    friend bool operator==(const ServiceRecord&, const ServiceRecord&) = default;
};

/// Returns the name of the record file.
[[nodiscard]] KRV_EXPORT std::string serviceRecordFileName();

/// Returns the text of a record file. Pure.
[[nodiscard]] KRV_EXPORT std::string textOf(const ServiceRecord& record);

/// Parses the text of a record file. Nothing if a key is missing, given twice or invalid. Other keys are ignored. Pure.
[[nodiscard]] KRV_EXPORT std::optional<ServiceRecord> parseServiceRecord(std::string_view text);

/// Returns the record of this process under that name and port. Nothing if /proc cannot be read.
[[nodiscard]] KRV_EXPORT std::optional<ServiceRecord> serviceRecordOfThisProcess(std::string name, std::uint16_t port);

/// Reads the record file in the folder. Nothing if there is none, if it is malformed or if it is not a file of this
/// user. Thread-safe.
[[nodiscard]] KRV_EXPORT std::optional<ServiceRecord> readServiceRecord(const std::string& folder);

/// The record file of this process. It stays in the folder, locked, until the object is destroyed or the process exits
/// or is killed.
class KRV_EXPORT ServiceRecordFile {
public:
    /// Writes the file. It appears in the folder complete and locked, in place of that of an earlier server. Anything
    /// else in its place makes room: a folder with contents stays beside it under another name.
    ServiceRecordFile(const std::string& folder, const ServiceRecord& record);
    /// Removes the file, unless a later server has replaced it.
    ~ServiceRecordFile();
    ServiceRecordFile(const ServiceRecordFile&) = delete;
    ServiceRecordFile& operator=(const ServiceRecordFile&) = delete;

    /// Returns whether the file was written and is still in its place.
    [[nodiscard]] bool isInPlace() const;

private:
    std::string path_;
    int file_ = -1;
};

}  // namespace krv
