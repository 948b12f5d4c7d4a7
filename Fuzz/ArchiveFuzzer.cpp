// Attacks the archive reader with bytes.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "ArchiveChecks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const auto* p = reinterpret_cast<const std::byte*>(bytes);
    krv::fuzz::checkArchive(std::make_shared<const krv::Data>(p, p + size));
    return 0;
}
