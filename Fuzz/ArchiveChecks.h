#pragma once

#include <cstdlib>
#include <memory>

#include <Tests/Foundation/SameValue.h>

#include <KRVQTProcessClient/Foundation/KeyedArchiver.h>
#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

/// What must hold of everything that the archive reader accepts. Aborts if it does not.
namespace krv::fuzz {

inline void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

/// Decodes the bytes. What they contain can be described, written, read again as the same, and destroyed.
inline void checkArchive(const std::shared_ptr<const Data>& data) {
    constexpr std::size_t kLongestDescription = std::size_t{256} << 10;
    const auto stored = [](Data archive) { return std::make_shared<const Data>(std::move(archive)); };
    const Value value = KRVOperationBase::valueFromData(data);
    if (value.isNull()) {
        return;
    }
    // A long text may be printed once for each level.
    require(value.description().size() <= kLongestDescription + 64 * data->size());
    require(test::Sameness().same(value, KRVOperationBase::valueFromData(stored(KeyedArchiver::archivedData(value)))));

    const auto record = KRVOperationBase::operationFromData(data);
    if (!record) {
        return;
    }
    const auto again = KRVOperationBase::operationFromData(stored(record->convertToData()));
    require(again && test::Sameness().same(*record, *again) && again->description() == record->description());
    KRVOperationBase copy;
    copy.copyFrom(record);
    require(test::Sameness().same(Value(copy.arguments()), Value(record->arguments())));
}

}  // namespace krv::fuzz
