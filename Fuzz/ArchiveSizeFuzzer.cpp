// Attacks the archive reader with archives that are too large to be found byte by byte. The input chooses one of the
// hostile archives of the tests, two sizes and a padding, nine bytes in all.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <Tests/Foundation/ArchiveSeeds.h>

#include "ArchiveChecks.h"

namespace {

using krv::test::Bytes;

constexpr std::size_t kMost = 120'000;

Bytes archive(std::size_t kind, std::size_t first, std::size_t second) {
    const auto nested = [](std::size_t count) { return static_cast<int>(count); };
    constexpr std::size_t kKinds = 10;
    switch (kind % kKinds) {
    case 0:
        return krv::test::ladder(nested(std::max<std::size_t>(first, 1)));
    case 1:
        return krv::test::twoChains(nested(first));
    case 2:
        return krv::test::nestedDate(nested(first));
    case 3:
        return krv::test::sharedLists(first, second);
    case 4:
        return krv::test::fanOut(nested(first % 1000));
    case 5:
        return krv::test::longText(first, second);
    case 6:
        return krv::test::sharedKey(first, second);
    case 7:
        return krv::test::sharedArguments(first, second);
    case 8:
        return krv::test::sharedDomain(first, second);
    default:
        return krv::test::overlappingTexts(first);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    std::array<std::uint8_t, 9> input{};
    std::memcpy(input.data(), bytes, std::min(size, input.size()));
    const auto number = [&](std::size_t place, std::size_t width) {
        std::size_t value = 0;
        for (std::size_t i = place; i < place + width; ++i) {
            value = value << 8 | input[i];
        }
        return value;
    };
    const Bytes made = archive(number(0, 1), number(1, 3) % kMost, number(4, 3) % kMost);
    krv::fuzz::checkArchive(krv::test::dataOf(krv::test::padded(made, number(7, 2) << 5)));
    return 0;
}
