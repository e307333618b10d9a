#include "core/error.h"

#include <atomic>
#include <limits>
#include <string>

#include "core/cast.h"
#include "core/checks.h"
#include "core/deref.h"
#include "core/feature.h"
#include "thrown.h"

namespace quillmere {
namespace {

TEST(Error, PiecesJoinWithoutSeparatorsAndNullOnesLeaveNoTrace) {
    const char* nothing = nullptr;
    EXPECT_EQ(thrown<IoException>([&] { throwIo("a", nothing, std::string("b"), "c"); }), "abc");
    EXPECT_EQ(thrown<IllegalStateException>([] { throwIllegalState("n=", int64_t{-5}); }), "n=-5");
    EXPECT_EQ(thrown<Exception>([&] { throwException(nothing); }), "");
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
    EXPECT_EQ(thrown<ArgumentNullException>([&] { CHECK_ARG_NOT_NULL_AT(41, txn); }),
              "Argument \"txn\" must not be null (L41)");
    const std::string line = std::to_string(__LINE__ + 1);
    EXPECT_EQ(thrown<IllegalArgumentException>([&] { CHECK_ARG(size > 0); }),
              "Argument condition \"size > 0\" not met (L" + line + ")");
    const std::string stateLine = std::to_string(__LINE__ + 1);
    EXPECT_EQ(thrown<IllegalStateException>([&] { CHECK_STATE(size == 1); }),
              "State condition failed: \"size == 1\" (L" + stateLine + ")");
    EXPECT_EQ(thrown<IllegalStateException>([] { commit(true); }),
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
    EXPECT_EQ(thrown<IllegalStateException>([&] { deref(unique); }), text + " (unique)");
    EXPECT_EQ(thrown<IllegalStateException>([&] { deref(shared); }), text + " (shared)");
    EXPECT_EQ(thrown<IllegalStateException>([&] { deref(atomic); }), text + " (atomic)");
    EXPECT_EQ(thrown<IllegalStateException>([&] { deref(plain); }), text);
    atomic = &value;
    EXPECT_EQ(deref(atomic), 3);
}

TEST(Cast, KeepsWhatFitsAndRefusesTheRest) {
    EXPECT_EQ(checkedCast<int32_t>(int64_t{-2147483648}), std::numeric_limits<int32_t>::min());
    EXPECT_EQ(checkedCast<uint32_t>(uint64_t{4294967295}), 4294967295u);
    const std::string middle = " can not be cast to the target type because it would result in ";
    // A negative source overflows too, never underflows.
    EXPECT_EQ(thrown<NumericOverflowException>([] { checkedCast<uint32_t>(int64_t{-1}); }),
              "Numeric overflow: -1" + middle + "4294967295");
    EXPECT_EQ(thrown<NumericOverflowException>([] { checkedCast<int32_t>(uint64_t{1} << 31); }),
              "Numeric overflow: 2147483648" + middle + "-2147483648");
    // The same bits, another sign.
    EXPECT_EQ(thrown<NumericOverflowException>([] { checkedCast<int64_t>(~uint64_t{0}); }),
              "Numeric overflow: 18446744073709551615" + middle + "-1");
    EXPECT_EQ(thrown<NumericOverflowException>([] { checkedCast<uint64_t>(int64_t{-1}); }),
              "Numeric overflow: -1" + middle + "18446744073709551615");
    EXPECT_EQ(thrown<NumericOverflowException>([] {
                  throwNumeric(NumericFailure::Underflow, int64_t{-3}, " + ", int64_t{-4});
              }),
              "Numeric underflow: -3 + -4");
}

TEST(Feature, NamesAndAvailability) {
    EXPECT_TRUE(hasFeature(13));
    EXPECT_FALSE(hasFeature(2));
    EXPECT_FALSE(hasFeature(-1));
    EXPECT_FALSE(hasFeature(17));
    EXPECT_STREQ(featureName(0), "Invalid");
    EXPECT_STREQ(featureName(16), "SyncMongoDb");
    EXPECT_STREQ(featureName(17), "Unknown");
    EXPECT_NE(thrown<IllegalArgumentException>([] { featureName(17, true); })
                  .find("Argument condition \"known\" not met"),
              std::string::npos);
    EXPECT_EQ(thrown<FeatureNotAvailableException>([] { requireFeature(Feature::Backup); }),
              "Feature 'Backup' is not available in this edition.");
    EXPECT_NO_THROW(requireFeature(Feature::Wal));
}

}  // namespace
}  // namespace quillmere
