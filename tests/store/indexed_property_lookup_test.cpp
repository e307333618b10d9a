#include "store/indexed_property_lookup.h"

#include "store/index_test.h"
#include "store/object_table.h"
#include "support/expect_throw.h"

namespace quillmere {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

constexpr uint32_t kBool = 2;
constexpr uint32_t kByte = 3;
constexpr uint32_t kShort = 4;
constexpr uint32_t kChar = 5;
constexpr uint32_t kInt = 6;
constexpr uint32_t kLong = 7;
constexpr uint32_t kText = 8;
constexpr uint64_t kLongId = 0x100000000;

std::string longText(char tail) {
    return std::string(500, 'x') + tail;
}

// The same objects without indexes and with them.
class IndexedPropertyLookupTest : public IndexTest {
protected:
    void openThings(uint32_t flags, uint32_t textFlags) {
        lookup_.reset();
        things_.reset();
        tx_.reset();
        open(TestSchema()
                 .entity(1, "Thing")
                 .property(kBool, "bool", PropertyType::Bool, flags)
                 .property(kByte, "byte", PropertyType::Byte, flags)
                 .property(kShort, "short", PropertyType::Short, flags)
                 .property(kChar, "char", PropertyType::Char, flags)
                 .property(kInt, "int", PropertyType::Int, flags)
                 .property(kLong, "long", PropertyType::Long, flags)
                 .property(kText, "text", PropertyType::String, textFlags));
        tx_ = write();
        things_ = cursor(*tx_);
        put(*things_, 1);  // matches nothing
        for (const uint64_t id : {uint64_t{2}, uint64_t{3}, kLongId}) {
            const bool odd = id == 3;
            put(*things_, id, {{kBool, odd},
                               {kByte, static_cast<int8_t>(odd ? -1 : 1)},
                               {kShort, static_cast<int16_t>(odd ? -1 : 1)},
                               {kInt, odd ? -1 : 1},
                               {kLong, int64_t{odd ? -1 : 1}},
                               {kText, longText(odd ? 'b' : 'a')}});
        }
        lookup_ = std::make_unique<IndexedPropertyLookup>(*things_);
    }
    const Property& prop(uint32_t id) { return property(1, id); }

    static uint64_t idOf(const Bytes& object) {
        return object.data() ? ObjectTable(object.data(), object.size()).scalar<uint64_t>(
                                   objectSlot(1))
                             : 0;
    }
    // The IDs of all matches; the first one is found without a list too.
    template <class Find, class Value>
    std::vector<uint64_t> find(Find find, uint32_t propertyId, Value value) {
        std::vector<Bytes> objects;
        const Bytes first = ((*lookup_).*find)(prop(propertyId), value, &objects);
        std::vector<uint64_t> ids;
        for (const Bytes& object : objects) ids.push_back(idOf(object));
        EXPECT_EQ(idOf(first), ids.empty() ? 0 : ids.front());
        EXPECT_EQ(idOf(((*lookup_).*find)(prop(propertyId), value, nullptr)), idOf(first));
        return ids;
    }
    std::vector<uint64_t> findText(const std::string& value) {
        std::vector<Bytes> objects;
        lookup_->findString(prop(kText), value, objects);
        std::vector<uint64_t> ids;
        for (const Bytes& object : objects) ids.push_back(idOf(object));
        return ids;
    }

    std::unique_ptr<Transaction> tx_;
    std::unique_ptr<Cursor> things_;
    std::unique_ptr<IndexedPropertyLookup> lookup_;
};

TEST_F(IndexedPropertyLookupTest, FindsTheSameObjectsWithAndWithoutAnIndex) {
    using Lookup = IndexedPropertyLookup;
    const uint32_t indexed = kPropertyIndexed;
    const std::pair<uint32_t, uint32_t> flags[] = {{0, 0},
                                                   {indexed, indexed},
                                                   {indexed, kPropertyIndexHash},
                                                   {indexed, kPropertyIndexHash64}};
    for (const auto& [scalarFlags, textFlags] : flags) {
        openThings(scalarFlags, textFlags);
        EXPECT_THAT(find(&Lookup::findBool, kBool, true), ElementsAre(3));
        EXPECT_THAT(find(&Lookup::findBool, kBool, false), UnorderedElementsAre(2, kLongId));
        EXPECT_THAT(find(&Lookup::findByte, kByte, int8_t{1}), UnorderedElementsAre(2, kLongId));
        EXPECT_THAT(find(&Lookup::findShort, kShort, int16_t{-1}), ElementsAre(3));
        EXPECT_THAT(find(&Lookup::findInt, kInt, -1), ElementsAre(3));
        EXPECT_THAT(find(&Lookup::findInt, kInt, 0), IsEmpty());
        EXPECT_THAT(find(&Lookup::findLong, kLong, int64_t{-1}), ElementsAre(3));
        EXPECT_THAT(find(&Lookup::findLong, kLong, int64_t{1}), UnorderedElementsAre(2, kLongId));
        EXPECT_THAT(findText(longText('a')), UnorderedElementsAre(2, kLongId));
        EXPECT_THAT(findText(longText('c')), IsEmpty());
        // A negative byte is widened for the index, whose entries are not.
        const auto negativeBytes = find(&Lookup::findByte, kByte, int8_t{-1});
        EXPECT_EQ(negativeBytes, scalarFlags ? std::vector<uint64_t>{} : std::vector<uint64_t>{3});
    }
}

TEST_F(IndexedPropertyLookupTest, RefusesOtherTypesAndEntriesWithoutAnObject) {
    openThings(kPropertyIndexed, kPropertyIndexed);
    EXPECT_EQ("Property \"char\" is of type Char and cannot be compared to a value of type Short",
              messageOf<IllegalArgumentException>(
                  [&] { lookup_->findShort(prop(kChar), 1, nullptr); }));
    const ObjectBytes ghost = makeObject({{kInt, 7}});
    things_->getIndexCursor(prop(kInt))
        .updateEntry(9, ObjectTable(ghost.data(), ghost.size()), nullptr);
    EXPECT_EQ("Indexed entity is unavailable",
              messageOf<IllegalStateException>([&] { lookup_->findInt(prop(kInt), 7, nullptr); }));
}

}  // namespace
}  // namespace quillmere
