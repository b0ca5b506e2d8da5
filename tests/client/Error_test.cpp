#include "client/Error.h"

#include "protocol/src/KelmError.h"

namespace kelm::client {
namespace {

TEST(ResultTest, FailedOneThrowsTheTextOfItsError) {
    const Result<std::unique_ptr<int>> failed(Error(ErrorKind::kSystem, 0, "the reason"));
    try {
        (void)failed.value();
        FAIL();
    } catch (const CallFailed& error) {
        EXPECT_STREQ(error.what(), "the reason");
        EXPECT_EQ(error.error().kind(), ErrorKind::kSystem);
    }
    Result<std::unique_ptr<int>> good(std::make_unique<int>(5));
    EXPECT_FALSE(good.error());
    EXPECT_EQ(*std::move(good).value(), 5);
    EXPECT_THROW(require(failed.error()), CallFailed);
}

TEST(ErrorTest, AdviceFitsTheCall) {
    using enum CallKind;
    for (const CallKind call : {kOther, kCreateGraph, kInfer}) {
        const std::string text = Error::fromStatus(KELM_ERROR_INVALID_PARAM, call).text();
        EXPECT_EQ(text.find("tag") != text.npos, call == kCreateGraph) << text;
    }
}

}  // namespace
}  // namespace kelm::client
