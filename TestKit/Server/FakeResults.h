#pragma once

#include <optional>
#include <string>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace krv::test_kit {

/// Fills the record of an operation that has succeeded as the real server does, and writes its files, each with these
/// contents. Without contents it writes none. Throws std::exception if a file cannot be written.
void fillRecord(KRVOperationBase& record, const KRVOperationBase& request, const std::optional<std::string>& contents);

}  // namespace krv::test_kit
