#include "core/bytes.h"

#include <cstring>
#include <string>

#include "core/error.h"
#include "support/expect_throw.h"

namespace quillmere {
namespace {

Bytes view(std::string_view text) {
    return Bytes(text.data(), text.size());
}

Bytes owned(std::string_view text) {
    return Bytes::copyOf(text.data(), text.size());
}

TEST(Bytes, CopiesOfOwnedBytesAreIndependentAndCopiesOfViewsAreViews) {
    Bytes original = owned("abc");
    Bytes copy = original;
    original.mutableData()[0] = 'X';
    EXPECT_EQ(copy.text(), "abc");
    EXPECT_TRUE(copy.owned());

    char text[] = "abc";
    const Bytes first(text, 3);
    const Bytes second = first;
    text[0] = 'X';
    EXPECT_EQ(second.text(), "Xbc");
    EXPECT_FALSE(second.owned());

    const Bytes moved = std::move(copy);
    EXPECT_TRUE(moved.owned());
    EXPECT_FALSE(copy.owned());
    EXPECT_TRUE(copy.empty());
}

TEST(Bytes, ResizeKeepsOwnedContentAndFreesAtZero) {
    Bytes bytes = owned("abcd");
    bytes.resize(8);
    EXPECT_EQ(bytes.text().substr(0, 4), "abcd");
    bytes.shrinkTo(2);
    EXPECT_EQ(bytes.text(), "ab");
    bytes.ensure(1);
    EXPECT_EQ(bytes.size(), 2u);
    bytes.setSize(1);
    EXPECT_EQ(messageOf<IllegalStateException>([&] { bytes.setSize(2); }),
              "Allocated bytes allow only to shrink the size; current size: 1");
    bytes.resize(0);
    EXPECT_EQ(bytes.data(), nullptr);
    EXPECT_FALSE(bytes.owned());

    Bytes asView = view("abcd");
    asView.shrinkTo(1);
    EXPECT_EQ(asView.size(), 4u) << "only owned blocks shrink";
    asView.ensure(2);
    EXPECT_TRUE(asView.owned());
    EXPECT_EQ(asView.size(), 2u);
}

TEST(Bytes, AssignMakesViewsOwnedAndReusesLargerBlocks) {
    Bytes bytes = view("abc");
    bytes.assign("xy", 2);
    EXPECT_TRUE(bytes.owned());
    EXPECT_EQ(bytes.text(), "xy");

    bytes = Bytes::allocated(16);
    const uint8_t* const block = bytes.data();
    bytes.assign("hello", 5);
    EXPECT_EQ(bytes.data(), block);
    EXPECT_EQ(bytes.text(), "hello");
}

TEST(Bytes, AssignModesDecideTheSize) {
    Bytes bytes;
    bytes.assign("ab", 2, CopyMode::Exact, 4);
    EXPECT_EQ(bytes.text(), std::string_view("ab\0\0", 4));
    bytes.assign("c", 1, CopyMode::KeepSize);
    EXPECT_EQ(bytes.text(), std::string_view("cb\0\0", 4));
    bytes.assign("defg", 4, CopyMode::Overwrite);
    EXPECT_EQ(bytes.text(), "defg");
    bytes.assign("h", 1, CopyMode::KeepSize, 6);
    EXPECT_EQ(bytes.text(), std::string_view("h\0\0\0\0\0", 6));
    bytes.assign("i", 1, CopyMode::Reuse, 6);
    EXPECT_EQ(bytes.text(), "i");
}

TEST(Bytes, AssignFromItself) {
    Bytes bytes = owned("abcd");
    bytes.assign(bytes.data(), 4, CopyMode::Exact, 8);
    EXPECT_EQ(bytes.text(), std::string_view("abcd\0\0\0\0", 8));
    // From inside of the own block, which is too small and replaced.
    Bytes inner = owned("abcd");
    inner.assign(inner.data() + 2, 2, CopyMode::Reuse, 64);
    EXPECT_EQ(inner.text(), "cd");
}

TEST(Bytes, AssignRefusesWhatDoesNotGoTogether) {
    Bytes bytes = owned("abc");
    const auto assign = [&](const void* data, size_t size, uint32_t mode, size_t minAllocation) {
        return messageOf<IllegalArgumentException>(
            [&] { bytes.assign(data, size, static_cast<CopyMode>(mode), minAllocation); });
    };
    EXPECT_EQ(assign("abcd", 4, 3, 0), "Given size is larger than existing size");
    EXPECT_EQ(assign("a", 1, 3, 2), "Min allocation cannot be combined with the given mode");
    EXPECT_EQ(assign("abc", 3, 0, 2), "Min alloc size must be greater or equal to size");
    EXPECT_EQ(assign("a", 1, 4, 0), "CopyMode 4");
    EXPECT_EQ(messageOf<ArgumentNullException>([&] { bytes.assign(nullptr, 1); })
                  .substr(0, 36), "Argument \"bytes\" must not be null (L");
    EXPECT_EQ(bytes.text(), "abc") << "a refused assignment changes nothing";
}

TEST(Bytes, OrderIsByUnsignedBytesWithPrefixesFirst) {
    const Bytes sorted[] = {Bytes(),   view("a"),      view("ab"),
                            view("b"), view("b\x7f"), view("b\x80")};
    for (size_t i = 0; i < std::size(sorted); ++i) {
        for (size_t j = 0; j < std::size(sorted); ++j) {
            EXPECT_EQ(sorted[i].less(sorted[j]), i < j) << i << " " << j;
            EXPECT_EQ(sorted[i].equals(sorted[j]), i == j) << i << " " << j;
        }
    }
}

TEST(Bytes, HexIsLimited) {
    EXPECT_EQ(view("\x01\xAB\xff").toHex(2), "01ab");
    EXPECT_EQ(view("\x01").toHex(8), "01");
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(Bytes, AnAllocationThatFailsLeavesTheOldBlock) {
    Bytes bytes = owned("abc");
    const size_t tooMuch = SIZE_MAX / 4;
    EXPECT_EQ(messageOf<AllocationException>([&] { bytes.resize(tooMuch); }),
              "Could not allocate " + std::to_string(tooMuch) + " bytes");
    EXPECT_EQ(bytes.text(), "abc");
}
#endif

}  // namespace
}  // namespace quillmere
