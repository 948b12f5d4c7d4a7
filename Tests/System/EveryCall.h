#pragma once

#include <functional>
#include <string>

#include <KRVQTProcessClient/Client/KRVQTProcessOperations.h>

namespace krv::test {

/// Makes every call of the shared client on a thread of its own, all at once, and waits for them. Reports the name and
/// how it ended: its result, "error DOMAIN" or "exception NAME".
void makeEveryCall(KRVQTProcessClientOperations& client, const std::string& movie, const std::string& folder,
                   const std::function<void(const std::string& name, const std::string& end)>& report);

}  // namespace krv::test
