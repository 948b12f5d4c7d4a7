// Attacks the archive reader. Whatever it accepts can also be written, described, copied and destroyed. A record that
// it accepts is read back as the same record.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include <KRVQTProcessClient/Foundation/KeyedArchiver.h>
#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    using krv::Data;
    using krv::KRVOperationBase;
    const auto* p = reinterpret_cast<const std::byte*>(bytes);
    const auto data = std::make_shared<const Data>(p, p + size);
    {
        const krv::Value value = KRVOperationBase::valueFromData(data);
        (void)value.description();
        if (!value.isNull() &&
            KRVOperationBase::valueFromData(std::make_shared<const Data>(krv::KeyedArchiver::archivedData(value)))
                .isNull()) {
            std::abort();
        }
    }
    const auto record = KRVOperationBase::operationFromData(data);
    if (!record) {
        return 0;
    }
    const auto again = KRVOperationBase::operationFromData(std::make_shared<const Data>(record->convertToData()));
    if (!again || again->operationType() != record->operationType() || again->uniqueID() != record->uniqueID() ||
        again->arguments()->size() != record->arguments()->size() || again->description() != record->description()) {
        std::abort();
    }
    (void)record->arguments()->description();
    (void)record->result()->description();
    KRVOperationBase copy;
    copy.copyFrom(record);
    return 0;
}
