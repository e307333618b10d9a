#include "core/error.h"

#include <atomic>
#include <limits>
#include <string>

#include "core/cast.h"
#include "core/checks.h"
#include "core/deref.h"
#include "core/feature.h"
#include "support/expect_throw.h"

namespace quillmere {
namespace {

TEST(Error, PiecesJoinWithoutSeparatorsAndNullOnesLeaveNoTrace) {
    const char* nothing = nullptr;
    EXPECT_EQ(messageOf<IoException>([&] { throwIo("a", nothing, std::string("b"), "c"); }), "abc");
    EXPECT_EQ(messageOf<IllegalStateException>([] { throwIllegalState("n=", int64_t{-5}); }), "n=-5");
    EXPECT_EQ(messageOf<Exception>([&] { throwException(nothing); }), "");
}

TEST(Error, ContextOfTheProviderIsCapturedAtConstruction) {
    struct Context : DiagnosticContext {
        std::string text() const override { return "captured"; }
    };
    struct Provider : DiagnosticProvider {
        void capture(std::shared_ptr<DiagnosticContext>& out) override {
            out = std::make_shared<Context>();
        }
    };
    const Exception before("x");
    setDiagnosticProvider(std::make_unique<Provider>());
    const StorageException during("x", 7);
    setDiagnosticProvider(nullptr);
    EXPECT_EQ(before.contextText(), "");
    EXPECT_EQ(during.contextText(), "captured");
    EXPECT_EQ(Exception("x").contextText(), "");
}

void commit(bool recycled) {
    CHECK_STATE_AT(230, !recycled);
}

TEST(Checks, MessagesHoldExpressionAndNumber) {
    const void* txn = nullptr;
    const int size = 0;
    EXPECT_EQ(messageOf<ArgumentNullException>([&] { CHECK_ARG_NOT_NULL_AT(41, txn); }),
              "Argument \"txn\" must not be null (L41)");
    const std::string line = std::to_string(__LINE__ + 1);
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { CHECK_ARG(size > 0); }),
              "Argument condition \"size > 0\" not met (L" + line + ")");
    const std::string stateLine = std::to_string(__LINE__ + 1);
    EXPECT_EQ(messageOf<IllegalStateException>([&] { CHECK_STATE(size == 1); }),
              "State condition failed: \"size == 1\" (L" + stateLine + ")");
    EXPECT_EQ(messageOf<IllegalStateException>([] { commit(true); }),
              "State condition failed in commit:230: !recycled");
    EXPECT_NO_THROW(commit(false));
}

TEST(Deref, TellsTheKindOfTheEmptyPointer) {
    int value = 3;
    std::unique_ptr<int> unique;
    std::shared_ptr<int> shared;
    std::atomic<int*> atomic{nullptr};
    int* plain = nullptr;
    const std::string text = "Can not dereference a null pointer";
    EXPECT_EQ(messageOf<IllegalStateException>([&] { deref(unique); }), text + " (unique)");
    EXPECT_EQ(messageOf<IllegalStateException>([&] { deref(shared); }), text + " (shared)");
    EXPECT_EQ(messageOf<IllegalStateException>([&] { deref(atomic); }), text + " (atomic)");
    EXPECT_EQ(messageOf<IllegalStateException>([&] { deref(plain); }), text);
    atomic = &value;
    EXPECT_EQ(deref(atomic), 3);
}

TEST(Cast, KeepsWhatFitsAndRefusesTheRest) {
    EXPECT_EQ(checkedCast<int32_t>(int64_t{-2147483648}), std::numeric_limits<int32_t>::min());
    EXPECT_EQ(checkedCast<uint32_t>(uint64_t{4294967295}), 4294967295u);
    const auto expectRefused = [](auto cast, const char* source, const char* result) {
        EXPECT_EQ(messageOf<NumericOverflowException>(cast),
                  std::string("Numeric overflow: ") + source +
                      " can not be cast to the target type because it would result in " + result);
    };
    // A negative source overflows too, never underflows.
    expectRefused([] { checkedCast<uint32_t>(int64_t{-1}); }, "-1", "4294967295");
    expectRefused([] { checkedCast<int32_t>(uint64_t{1} << 31); }, "2147483648", "-2147483648");
    // The same bits, another sign.
    expectRefused([] { checkedCast<int64_t>(~uint64_t{0}); }, "18446744073709551615", "-1");
    expectRefused([] { checkedCast<uint64_t>(int64_t{-1}); }, "-1", "18446744073709551615");
}

TEST(Feature, NamesEndWithTheLastFeature) {
    EXPECT_STREQ(featureName(0), "Invalid");
    EXPECT_STREQ(featureName(16), "SyncMongoDb");
    EXPECT_STREQ(featureName(17), "Unknown");
    EXPECT_THROW(featureName(17, true), IllegalArgumentException);
}

}  // namespace
}  // namespace quillmere
