#include <KRVQTProcessClient/Client/KRVQTProcessOperations.h>

namespace krv {

KRVReliableQTProcessOperations::~KRVReliableQTProcessOperations() = default;
KRVQTProcessOperations::~KRVQTProcessOperations() = default;
KRVQTProcessClientOperations::~KRVQTProcessClientOperations() = default;

}  // namespace krv
