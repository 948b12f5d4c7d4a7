#include "Usage.h"

namespace krvqt {

ExitStatus usage(std::string_view text) {
    throw UsageError(std::string(text));
}

}  // namespace krvqt
