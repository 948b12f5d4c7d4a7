#include <KRVQTProcessClient/Client/ReliabilityDecision.h>

namespace krv {

ReliabilityDecision::~ReliabilityDecision() = default;

}  // namespace krv
