#pragma once

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// Provides the server's port, which a transport reads before each call.
class KRV_EXPORT ServicePort {
public:
    virtual ~ServicePort();
    /// Returns 0 if the port is not known yet, -1 if the server is known to be absent, else the port. The result may
    /// differ between two calls. Thread-safe.
    [[nodiscard]] virtual long servicePortNumber() const = 0;
};

}  // namespace krv
