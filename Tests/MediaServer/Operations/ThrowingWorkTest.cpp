// Work that throws: its operation fails, and the executor thread serves the next one.
#include <exception>
#include <new>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Foundation/Exception.h>

#include "LedgerFixture.h"

namespace krv::server {
namespace {

struct Thrown {
    const char* name;
    std::exception_ptr exception;
    const char* reason;
};

class ThrowingWork : public Ledger, public testing::WithParamInterface<Thrown> {};

TEST_P(ThrowingWork, FailsItsOperationOnly) {
    const auto failing = add();
    const auto waiting = add();
    started(0)->end.set_exception(GetParam().exception);
    const auto state = waitForEnd(failing->id);
    ASSERT_TRUE(state.error);
    EXPECT_EQ(state.error->domain(), kMediaServerErrorDomain);
    EXPECT_EQ(state.error->code(), static_cast<int>(OperationErrorCode::Internal));
    EXPECT_EQ(state.error->localizedFailureReason(), GetParam().reason);
    EXPECT_FALSE(state.completed);

    // The only executor thread of its kind.
    started(1)->end.set_value(completed());
    EXPECT_TRUE(waitForEnd(waiting->id).completed);
}

INSTANTIATE_TEST_SUITE_P(
    OfEveryKind, ThrowingWork,
    testing::Values(Thrown{"Exception",
                           std::make_exception_ptr(Exception(std::string(kInvalidArgumentException), "cannot be")),
                           "NSInvalidArgumentException: cannot be"},
                    Thrown{"BadAlloc", std::make_exception_ptr(std::bad_alloc()), "std::bad_alloc"},
                    Thrown{"Number", std::make_exception_ptr(1), "exception of unknown type"}),
    [](const testing::TestParamInfo<Thrown>& each) { return each.param.name; });

}  // namespace
}  // namespace krv::server
