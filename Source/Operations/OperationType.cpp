#include <array>

#include <KRVQTProcessClient/Operations/OperationType.h>

namespace krv {
namespace {

constexpr std::array kTable{
#define KRV_ROW(value, enumerator, factory, name, summary)                                                             \
    OperationTypeInfo{enumerator, factory, name, StateSummary::summary},
    KRV_OPERATION_TYPES(KRV_ROW)
#undef KRV_ROW
};

}  // namespace

std::span<const OperationTypeInfo> operationTypes() noexcept {
    return kTable;
}

const OperationTypeInfo* operationTypeInfo(std::int32_t type) noexcept {
    for (const OperationTypeInfo& row : kTable) {
        if (row.type == type) {
            return &row;
        }
    }
    return nullptr;
}

}  // namespace krv
