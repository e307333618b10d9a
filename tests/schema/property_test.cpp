#include "schema/property.h"

#include <gtest/gtest.h>

#include "core/error.h"
#include "schema/index.h"
#include "support/expect_throw.h"

namespace quillmere {
namespace {

uint32_t finishedFlags(PropertyType type, uint32_t flags) {
    Property property(1, 10, "p", type, flags);
    property.finish();
    return property.flags();
}

IndexType indexTypeFor(uint32_t flags) {
    return Index(1, std::make_shared<Property>(1, 10, "p", PropertyType::String,
                                               flags | kPropertyIndexed))
        .type();
}

TEST(PropertyType, NamesTheGapsAndKnowsSizes) {
    EXPECT_STREQ(propertyTypeName(PropertyType::DateNano), "DateNano");
    EXPECT_STREQ(propertyTypeName(PropertyType{14}), "Reserved3");
    EXPECT_STREQ(propertyTypeName(PropertyType{21}), "Reserved10");
    EXPECT_STREQ(propertyTypeName(PropertyType::BoolVector), "BoolVector");
    EXPECT_STREQ(propertyTypeName(PropertyType::DateNanoVector), "DateNanoVector");
    EXPECT_STREQ(propertyTypeName(PropertyType{33}), "Unknown");
    EXPECT_EQ(propertyTypeSize(PropertyType::Char), 2u);
    EXPECT_EQ(propertyTypeSize(PropertyType::FloatVector), 0u);
    for (const uint16_t illegal : {0, 14, 33, 65535}) {
        EXPECT_EQ(messageOf<IllegalArgumentException>(
                      [&] { propertyTypeSize(PropertyType{illegal}); }),
                  "Unknown property type: " + std::to_string(illegal));
    }
}

TEST(Property, DerivesTheFlagsThatOthersImply) {
    EXPECT_EQ(finishedFlags(PropertyType::String, kPropertyUnique),
              kPropertyUnique | kPropertyIndexHash | kPropertyIndexed);
    EXPECT_EQ(finishedFlags(PropertyType::Int, kPropertyUnique),
              kPropertyUnique | kPropertyIndexed);
    EXPECT_EQ(finishedFlags(PropertyType::String, kPropertyIndexHash64),
              kPropertyIndexHash64 | kPropertyIndexed);
    EXPECT_EQ(finishedFlags(PropertyType::String, kPropertyIndexSkipAbsent),
              uint32_t{kPropertyIndexSkipAbsent});
}

TEST(Property, KeepsWhatHasBeenSet) {
    Property property(1, 10, "p", PropertyType::Int, 0);
    property.setEntity(3);
    property.setEntity(3);
    EXPECT_EQ(messageOf<IllegalStateException>([&] { property.setEntity(4); }),
              "Entity has already been set in Property");
    for (const uint32_t illegal : {0u, 2u, 5u, 0x10000u}) {
        EXPECT_EQ(messageOf<IllegalArgumentException>([&] { property.setFlatOffset(illegal); }),
                  "Illegal offset");
    }
    property.setFlatOffset(4);
    EXPECT_EQ(messageOf<IllegalStateException>([&] { property.setFlatOffset(6); }),
              "Offset has already been set in Property");
}

TEST(Property, GainsAndLosesAnIndex) {
    Property property(1, 10, "p", PropertyType::String, kPropertyNotNull);
    EXPECT_EQ(messageOf<IllegalStateException>([&] { property.removeIndex(); }),
              "Cannot remove index from property: property has no index");
    EXPECT_THROW(property.setIndex(5, 0, 0), IllegalArgumentException);

    property.setIndex(5, 50, kPropertyIndexHash | kPropertyUnsigned);
    EXPECT_EQ(property.flags(), kPropertyNotNull | kPropertyIndexed | kPropertyIndexHash);
    EXPECT_EQ(messageOf<IllegalStateException>([&] { property.setIndex(6, 60, 0); }),
              "Index has already been set in Property");
    property.removeIndex();
    EXPECT_EQ(property.flags(), uint32_t{kPropertyNotNull});
    property.setIndex(5, 50, 0);
    EXPECT_EQ(property.indexId(), 5u);
}

TEST(Index, TakesItsTypeFromTheProperty) {
    EXPECT_EQ(indexTypeFor(0), IndexType::Value);
    EXPECT_EQ(indexTypeFor(kPropertyIndexHash), IndexType::Hash);
    EXPECT_EQ(indexTypeFor(kPropertyIndexHash | kPropertyIndexHash64), IndexType::Hash64);
    auto vector = std::make_shared<Property>(1, 10, "v", PropertyType::FloatVector,
                                             kPropertyIndexed | kPropertyIndexSkipAbsent);
    vector->setHnswOptions(std::make_shared<HnswOptions>());
    const Index index(7, vector);
    EXPECT_EQ(index.type(), IndexType::Hnsw);
    EXPECT_EQ(index.flags(), uint32_t{Index::kSkipNull});
    EXPECT_EQ(&index.property(), vector.get());
    vector = std::make_shared<Property>(1, 10, "plain", PropertyType::Int, 0);
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { Index(7, vector); }),
              "Property is not indexed: plain");
}

TEST(HnswOptions, TurnsSwitchesIntoFlagsAndBack) {
    HnswOptions options;
    for (uint32_t flags = 0; flags < 16; ++flags) {
        options.setFlags(flags | 0xF0);
        EXPECT_EQ(options.flags(), flags);
        EXPECT_EQ(options.vectorCachePadding, (flags & 4) == 0);
        EXPECT_EQ(options.reparationUnlimitedCandidates, (flags & 8) == 0);
    }
    EXPECT_THROW(options.setVectorCacheSizeKb(uint64_t{1} << 54), IllegalArgumentException);
    EXPECT_TRUE(options.vectorCacheSizeIsDefault);
}

}  // namespace
}  // namespace quillmere
