#include <KRVQTProcessClient/Foundation/Archivable.h>

namespace krv {

Archivable::~Archivable() = default;

std::string Archivable::description() const {
    return "<" + std::string(className()) + ">";
}

}  // namespace krv
