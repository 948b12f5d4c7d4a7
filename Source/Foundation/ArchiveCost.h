#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>

#include <KRVQTProcessClient/Foundation/Dictionary.h>
#include <KRVQTProcessClient/Foundation/Value.h>

/// What decoding an archive may cost. Not installed.
///
/// What many objects share (lists of elements, texts, class descriptions) takes few bytes in an archive, but costs again
/// for each of them when it is decoded. The reader charges each cost before it arises, and refuses the archive when the
/// budget is used up. The archiver adds up the same costs, and refuses to write what the reader would refuse.
namespace krv::cost {

/// Memory, in bytes: what the decoded objects need, with the overhead of their allocations.
inline constexpr std::uint64_t kMemoryAtStart = 64 << 10;
inline constexpr std::uint64_t kMemoryPerByte = 64;
inline constexpr std::uint64_t kMostMemory = 64 << 20;
/// Steps of work: reading one reference, converting a few units of text.
inline constexpr std::uint64_t kStepsAtStart = 4 << 10;
inline constexpr std::uint64_t kStepsPerByte = 64;
inline constexpr std::uint64_t kMostSteps = 4 << 20;

/// Returns the budget of an archive of so many bytes. One of up to 16 MiB, the longest request, has `most` at most. A
/// longer one has more in proportion.
[[nodiscard]] constexpr std::uint64_t budget(std::uint64_t bytes, std::uint64_t start, std::uint64_t perByte,
                                             std::uint64_t most) {
    return std::min(start + bytes * perByte, std::max(most, bytes / 16 * (most >> 20)));
}
[[nodiscard]] constexpr std::uint64_t memoryBudget(std::uint64_t bytes) {
    return budget(bytes, kMemoryAtStart, kMemoryPerByte, kMostMemory);
}
[[nodiscard]] constexpr std::uint64_t stepsBudget(std::uint64_t bytes) {
    return budget(bytes, kStepsAtStart, kStepsPerByte, kMostSteps);
}

/// The memory of a container, a text or data without its contents, of an error, and of an object of the class table.
inline constexpr std::uint64_t kObjectMemory = 80;
inline constexpr std::uint64_t kErrorMemory = 160;
inline constexpr std::uint64_t kArchivableMemory = 2048;
/// The memory of the decoding state of each stored object, and of each one that is decoded by itself.
inline constexpr std::uint64_t kNumberMemory = sizeof(std::uint32_t);
inline constexpr std::uint64_t kSlotMemory = 32;
/// How many units of UTF-16 are converted in one step.
inline constexpr std::uint64_t kTextPerStep = 8;

/// The memory of an array, whose list grows by doubling.
[[nodiscard]] constexpr std::uint64_t arrayMemory(std::uint64_t elements) {
    return kObjectMemory + elements * 2 * sizeof(Value);
}
/// The memory of a dictionary, whose list is sorted.
[[nodiscard]] constexpr std::uint64_t dictionaryMemory(std::uint64_t entries) {
    return kObjectMemory + entries * 5 * sizeof(Dictionary::Entry) / 2;
}
/// The memory of the copy of a dictionary that a record gets. Each entry is a step, too.
[[nodiscard]] constexpr std::uint64_t copyMemory(std::uint64_t entries) {
    return kObjectMemory + entries * sizeof(Dictionary::Entry);
}

/// How often sorting compares each key of a dictionary.
[[nodiscard]] constexpr std::uint64_t comparisonsPerKey(std::uint64_t entries) {
    return static_cast<std::uint64_t>(std::bit_width(entries));
}
/// The steps of comparing two keys of these lengths so often.
[[nodiscard]] constexpr std::uint64_t comparisonSteps(std::size_t length, std::size_t otherLength,
                                                      std::uint64_t comparisons) {
    constexpr std::uint64_t kComparedPerStep = 32;
    return std::min(length, otherLength) / kComparedPerStep * comparisons;
}

/// The steps of finding the fields of an object of a standard class, in the order in which the archiver stores them. The
/// elements of lists are steps of their own.
inline constexpr std::uint64_t kTopSteps = 11;
inline constexpr std::uint64_t kClassSteps = 1;
inline constexpr std::uint64_t kArraySteps = 1;
inline constexpr std::uint64_t kDictionarySteps = 3;
inline constexpr std::uint64_t kErrorSteps = 6;
inline constexpr std::uint64_t kDateSteps = 1;
inline constexpr std::uint64_t kSizeSteps = 3;

struct Cost {
    std::uint64_t memory;
    std::uint64_t steps;
};
/// The cost of fields that an object of the class table lacks, because they are written when it is archived again.
[[nodiscard]] constexpr Cost missingFieldsCost(std::uint64_t fields) {
    constexpr std::uint64_t kFieldMemory = 64;
    return {fields * kFieldMemory, fields};
}
/// The cost of decoding a dictionary, without its lists and their elements.
[[nodiscard]] inline Cost dictionaryCost(const Dictionary& dictionary) {
    Cost cost{dictionaryMemory(dictionary.size()), kDictionarySteps};
    const std::uint64_t comparisons = comparisonsPerKey(dictionary.size());
    std::size_t previous = 0;
    for (const auto& [key, value] : dictionary) {
        cost.steps += comparisonSteps(previous, key->size(), comparisons);
        previous = key->size();
    }
    return cost;
}

}  // namespace krv::cost
