#include "store/collector.h"

#include "store/object_test.h"

namespace quillmere {
namespace {

class CollectorTest : public ::testing::Test {
protected:
    CollectorTest() {
        TestSchema spec;
        spec.entity(1, "Everything");
        uint32_t id = 1;
        for (const PropertyType type :
             {PropertyType::Bool, PropertyType::Byte, PropertyType::Short, PropertyType::Char,
              PropertyType::Int, PropertyType::Long, PropertyType::Float, PropertyType::Double,
              PropertyType::String, PropertyType::Date, PropertyType::Relation,
              PropertyType::DateNano, PropertyType::ByteVector, PropertyType::StringVector,
              PropertyType::IntVector}) {
            spec.property(++id, propertyTypeName(type), type, 0,
                          type == PropertyType::Relation ? 1 : 0);
        }
        schema_ = spec.build();
    }

    const Entity& entity() { return schema_->entityById(1); }
    const Property& of(PropertyType type) {
        return *entity().findPropertyByName(propertyTypeName(type));
    }
    std::vector<uint8_t> finish(Collector& collector, uint64_t id = 5) {
        const auto object = collector.finish(entity().idProperty().flatOffset(), id);
        return {object.begin(), object.end()};
    }

    std::shared_ptr<Schema> schema_;
};

TEST_F(CollectorTest, StoresEachTypeInItsWidthAndKeepsZeros) {
    Collector collector(entity());
    collector.collectString(of(PropertyType::String), "text");
    const uint8_t bytes[] = {1, 2, 3};
    collector.collectBytes(of(PropertyType::ByteVector), bytes, sizeof bytes);
    const int32_t ints[] = {-1, 70000};
    collector.collectScalarVector(of(PropertyType::IntVector), ints, 2);
    collector.addStringToVector("a");
    collector.addStringToVector("b");
    collector.collectStringVector(of(PropertyType::StringVector));
    // Each with a value whose loss of a byte shows, or 0.
    const std::pair<PropertyType, int64_t> integers[] = {
        {PropertyType::Bool, 0},      {PropertyType::Byte, -1}, {PropertyType::Short, -300},
        {PropertyType::Char, 0x1234}, {PropertyType::Int, -70000}, {PropertyType::Long, 0},
        {PropertyType::Relation, 0},  {PropertyType::Date, INT64_MIN},
        {PropertyType::DateNano, int64_t{1} << 40}};
    for (const auto& [type, value] : integers) collector.collectInteger(of(type), value);
    collector.collectFloatingPoint(of(PropertyType::Float), 1.5);
    collector.collectFloatingPoint(of(PropertyType::Double), -0.0);
    const std::vector<uint8_t> object = finish(collector);

    flatbuffers::Verifier verifier(object.data(), object.size());
    const auto* table = flatbuffers::GetRoot<flatbuffers::Table>(object.data());
    ASSERT_TRUE(table->VerifyTableStart(verifier));
    EXPECT_EQ(objectValue<uint64_t>(object.data(), 1), 5u);
    const auto integer = [&](PropertyType type) -> int64_t {
        const uint32_t id = of(type).id();
        switch (propertyTypeSize(type)) {
            case 1: return objectValue<int8_t>(object.data(), id);
            case 2: return objectValue<int16_t>(object.data(), id);
            case 4: return objectValue<int32_t>(object.data(), id);
            default: return objectValue<int64_t>(object.data(), id);
        }
    };
    for (const auto& [type, value] : integers) {
        EXPECT_TRUE(table->CheckField(of(type).flatOffset())) << propertyTypeName(type);
        EXPECT_EQ(integer(type), value) << propertyTypeName(type);
    }
    EXPECT_EQ(objectValue<float>(object.data(), of(PropertyType::Float).id()), 1.5f);
    EXPECT_TRUE(table->CheckField(of(PropertyType::Double).flatOffset()));
    EXPECT_EQ(objectText(object.data(), of(PropertyType::String).id()), "text");
    const auto* vector = table->GetPointer<const flatbuffers::Vector<int32_t>*>(
        of(PropertyType::IntVector).flatOffset());
    EXPECT_EQ(vector->Get(1), 70000);
    const auto* strings =
        table->GetPointer<const flatbuffers::Vector<flatbuffers::Offset<flatbuffers::String>>*>(
            of(PropertyType::StringVector).flatOffset());
    ASSERT_EQ(strings->size(), 2u);
    EXPECT_EQ(strings->Get(1)->str(), "b");
}

TEST_F(CollectorTest, RefusesWhatComesTooLateOrDoesNotFit) {
    Collector collector(entity());
    expectThrow<IllegalArgumentException>(
        "ID must not be collected", [&] { collector.collectInteger(entity().idProperty(), 1); });
    for (const auto& collect : {+[](Collector& c, const Property& p) { c.collectInteger(p, 1); },
                                +[](Collector& c, const Property& p) {
                                    c.collectFloatingPoint(p, 1);
                                }}) {
        try {
            collect(collector, of(PropertyType::String));
            FAIL();
        } catch (const IllegalArgumentException& e) {
            EXPECT_NE(e.message().find("has an unknown scalar type (9)"), std::string::npos);
        }
    }
    collector.collectInteger(of(PropertyType::Int), 1);
    const std::string late = "Collecting this type must precede scalar collecting";
    expectThrow<IllegalStateException>(
        late, [&] { collector.collectString(of(PropertyType::String), "late"); });
    expectThrow<IllegalStateException>(
        late, [&] { collector.collectBytes(of(PropertyType::ByteVector), "", 0); });
    expectThrow<IllegalStateException>(late, [&] { collector.addStringToVector("late"); });
    expectThrow<IllegalStateException>(
        late, [&] { collector.collectStringVector(of(PropertyType::StringVector)); });
    collector.reset();
    collector.addStringToVector("lost");
    expectThrow<IllegalStateException>(
        "There are pending strings for a vector that was never created",
        [&] { collector.collectInteger(of(PropertyType::Int), 1); });
}

TEST_F(CollectorTest, StoresEqualStringsOnceAndForgetsThemAtTheReset) {
    const std::string text(500, 'x');
    Collector collector(entity());
    EXPECT_FALSE(collector.dirty());
    collector.collectString(of(PropertyType::String), text);
    EXPECT_TRUE(collector.dirty());
    for (int i = 0; i < 10; ++i) collector.addStringToVector(text);
    collector.collectStringVector(of(PropertyType::StringVector));
    EXPECT_LT(finish(collector).size(), 2 * text.size());
    collector.reset();
    EXPECT_FALSE(collector.dirty());
    const std::vector<uint8_t> empty = finish(collector, 6);
    EXPECT_EQ(objectText(empty.data(), of(PropertyType::String).id()), "");
    EXPECT_EQ(objectValue<uint64_t>(empty.data(), 1), 6u);
    EXPECT_EQ(empty.size() % 4, 0u);
}

}  // namespace
}  // namespace quillmere
