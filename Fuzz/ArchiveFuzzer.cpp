// Attacks the archive reader. Every record that it accepts must also be writable, and be read back as the same record.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    using krv::Data;
    using krv::KRVOperationBase;
    const auto* p = reinterpret_cast<const std::byte*>(bytes);
    const auto data = std::make_shared<const Data>(p, p + size);
    (void)KRVOperationBase::valueFromData(data).description();
    const auto record = KRVOperationBase::operationFromData(data);
    if (!record) {
        return 0;
    }
    const auto again = KRVOperationBase::operationFromData(std::make_shared<const Data>(record->convertToData()));
    if (!again || again->operationType() != record->operationType() || again->uniqueID() != record->uniqueID() ||
        again->arguments()->size() != record->arguments()->size() || again->description() != record->description()) {
        std::abort();
    }
    return 0;
}
