#include "store/collector.h"

#include "store/object_test.h"

namespace quillmere {
namespace {

class CollectorTest : public ::testing::Test {
protected:
    CollectorTest() {
        const PropertyType types[] = {
            PropertyType::Long,   PropertyType::Bool,       PropertyType::Byte,
            PropertyType::Short,  PropertyType::Char,       PropertyType::Int,
            PropertyType::Long,   PropertyType::Float,      PropertyType::Double,
            PropertyType::String, PropertyType::Date,       PropertyType::Relation,
            PropertyType::DateNano, PropertyType::ByteVector, PropertyType::StringVector,
            PropertyType::IntVector};
        for (const PropertyType type : types) {
            const auto id = static_cast<uint32_t>(entity_.properties().size() + 1);
            auto property = std::make_shared<Property>(id, 100 + id, "p" + std::to_string(id), type,
                                                       id == 1 ? uint32_t{kPropertyId} : 0);
            property->setEntity(1);
            property->setFlatOffset(objectSlot(id));
            if (type == PropertyType::Relation) property->setTargetEntityId(1);
            entity_.addProperty(property);
        }
        entity_.finish();
    }

    // The first property of the type behind the ID.
    const Property& of(PropertyType type) const {
        for (const auto& property : entity_.properties()) {
            if (property->id() != 1 && property->type() == type) return *property;
        }
        throw std::logic_error("no such property");
    }

    std::vector<uint8_t> finish(Collector& collector, uint64_t id = 5) {
        const auto object = collector.finish(entity_.idProperty().flatOffset(), id);
        return {object.begin(), object.end()};
    }

    Entity entity_{1, 99, "Everything"};
};

TEST_F(CollectorTest, StoresEachTypeInItsWidthAndKeepsZeros) {
    Collector collector(entity_);
    collector.collectString(of(PropertyType::String), "text");
    const uint8_t bytes[] = {1, 2, 3};
    collector.collectBytes(of(PropertyType::ByteVector), bytes, sizeof bytes);
    const int32_t ints[] = {-1, 70000};
    collector.collectScalarVector(of(PropertyType::IntVector), ints, 2);
    collector.addStringToVector("a");
    collector.addStringToVector("b");
    collector.collectStringVector(of(PropertyType::StringVector));
    const std::vector<std::pair<PropertyType, size_t>> integers = {
        {PropertyType::Bool, 1},     {PropertyType::Byte, 1}, {PropertyType::Short, 2},
        {PropertyType::Char, 2},     {PropertyType::Int, 4},  {PropertyType::Long, 8},
        {PropertyType::Relation, 8}, {PropertyType::Date, 8}, {PropertyType::DateNano, 8}};
    for (const auto& [type, size] : integers) collector.collectInteger(of(type), 0);
    collector.collectFloatingPoint(of(PropertyType::Float), 1.5);
    collector.collectFloatingPoint(of(PropertyType::Double), -0.0);
    const std::vector<uint8_t> object = finish(collector);

    flatbuffers::Verifier verifier(object.data(), object.size());
    const auto* table = flatbuffers::GetRoot<flatbuffers::Table>(object.data());
    ASSERT_TRUE(table->VerifyTableStart(verifier));
    EXPECT_EQ(objectValue<uint64_t>(object.data(), 1), 5u);
    for (const auto& [type, size] : integers) {
        EXPECT_TRUE(table->CheckField(of(type).flatOffset())) << propertyTypeName(type);
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

TEST_F(CollectorTest, TakesWidthsFromTheTypeAndNotFromTheValue) {
    Collector collector(entity_);
    collector.collectInteger(of(PropertyType::Byte), -1);
    collector.collectInteger(of(PropertyType::Short), -300);
    collector.collectInteger(of(PropertyType::Int), -70000);
    collector.collectInteger(of(PropertyType::Date), INT64_MIN);
    const std::vector<uint8_t> object = finish(collector);
    EXPECT_EQ(objectValue<int8_t>(object.data(), of(PropertyType::Byte).id()), -1);
    EXPECT_EQ(objectValue<int16_t>(object.data(), of(PropertyType::Short).id()), -300);
    EXPECT_EQ(objectValue<int32_t>(object.data(), of(PropertyType::Int).id()), -70000);
    EXPECT_EQ(objectValue<int64_t>(object.data(), of(PropertyType::Date).id()), INT64_MIN);
}

TEST_F(CollectorTest, RefusesVariableLengthsBehindTheFirstScalar) {
    Collector collector(entity_);
    collector.collectInteger(of(PropertyType::Int), 1);
    const std::string message = "Collecting this type must precede scalar collecting";
    expectThrow<IllegalStateException>(
        message, [&] { collector.collectString(of(PropertyType::String), "late"); });
    expectThrow<IllegalStateException>(
        message, [&] { collector.collectBytes(of(PropertyType::ByteVector), "", 0); });
    expectThrow<IllegalStateException>(message, [&] { collector.addStringToVector("late"); });
    expectThrow<IllegalStateException>(
        message, [&] { collector.collectStringVector(of(PropertyType::StringVector)); });

    collector.reset();
    collector.collectString(of(PropertyType::String), "early");
    collector.collectInteger(of(PropertyType::Int), 1);
    EXPECT_EQ(objectText(finish(collector).data(), of(PropertyType::String).id()), "early");
}

TEST_F(CollectorTest, RefusesScalarsWhileStringsWaitForTheirVector) {
    Collector collector(entity_);
    collector.addStringToVector("lost");
    expectThrow<IllegalStateException>(
        "There are pending strings for a vector that was never created",
        [&] { collector.collectInteger(of(PropertyType::Int), 1); });
}

TEST_F(CollectorTest, RefusesTheIdAndTypesThatAreNoScalars) {
    Collector collector(entity_);
    expectThrow<IllegalArgumentException>(
        "ID must not be collected", [&] { collector.collectInteger(entity_.idProperty(), 1); });
    expectThrow<IllegalArgumentException>("", [&] {
        collector.collectInteger(of(PropertyType::String), 1);
    });
    try {
        collector.collectFloatingPoint(of(PropertyType::String), 1);
        FAIL();
    } catch (const IllegalArgumentException& e) {
        EXPECT_NE(e.message().find("has an unknown scalar type (9)"), std::string::npos);
    }
}

TEST_F(CollectorTest, StoresEqualStringsOnce) {
    const std::string text(500, 'x');
    Collector collector(entity_);
    collector.collectString(of(PropertyType::String), text);
    for (int i = 0; i < 10; ++i) collector.addStringToVector(text);
    collector.collectStringVector(of(PropertyType::StringVector));
    EXPECT_LT(finish(collector).size(), 2 * text.size());
}

TEST_F(CollectorTest, IsReusableAndTellsWhetherAnObjectIsUnderWay) {
    Collector collector(entity_);
    EXPECT_FALSE(collector.dirty());
    collector.collectString(of(PropertyType::String), "one");
    EXPECT_TRUE(collector.dirty());
    const std::vector<uint8_t> first = finish(collector);
    collector.reset();
    EXPECT_FALSE(collector.dirty());
    const std::vector<uint8_t> empty = finish(collector, 6);
    EXPECT_EQ(objectText(empty.data(), of(PropertyType::String).id()), "");
    EXPECT_EQ(objectValue<uint64_t>(empty.data(), 1), 6u);
    EXPECT_EQ(empty.size() % 4, 0u);
}

}  // namespace
}  // namespace quillmere
