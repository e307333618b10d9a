#include "schema/schema_hash.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "core/error.h"
#include "model_table.h"
#include "schema/catalog.h"
#include "schema/model_reader.h"
#include "schema/schema.h"
#include "support/expect_throw.h"

namespace quillmere {
namespace {

std::string hashText(const ModelTable& spec, const SchemaHashOptions& options) {
    const auto model = readModel(spec.build());
    model->schema->link();
    Catalog catalog = Catalog::create(*model);
    catalog.defaultSchema = model->schema;
    const Bytes hash = schemaHash(catalog, options);
    return hash.toHex(hash.size());
}

// Which of the three hashes a change alters: a letter each for binding, full and base.
std::string altered(void (*change)(ModelTable&)) {
    ModelTable spec = libraryModel();
    change(spec);
    std::string letters;
    const auto compare = [&](const SchemaHashOptions& options, const char* letter) {
        if (hashText(spec, options) != hashText(libraryModel(), options)) letters += letter;
    };
    compare(kBindingHash, "b");
    compare(kFullHash, "f");
    compare(kBaseHash, "a");
    return letters;
}

// Stored hashes are compared with new ones: these must never change.
TEST(SchemaHash, StaysTheSameForGood) {
    EXPECT_EQ(hashText(libraryModel(), kBindingHash), "a3a97bd92727fd12fc0ceeeca7715a69");
    EXPECT_EQ(hashText(libraryModel(), kFullHash), "a3a97bd92727fd12fc0ceeeca7715a69");
    EXPECT_EQ(hashText(libraryModel(), kBaseHash), "6d73c7206af5c40bada191eb5ef659b1");
}

TEST(SchemaHash, LeavesOutWhatItsOptionsSay) {
    EXPECT_EQ(altered([](ModelTable& m) {
                  std::ranges::reverse(m.entities);
                  std::ranges::reverse(m.entity("Book").properties);
              }),
              "");
    EXPECT_EQ(altered([](ModelTable& m) { m.userVersion = 9; }), "");
    EXPECT_EQ(altered([](ModelTable& m) { m.entity("Book").property("pages").id.uid = 999; }),
              "bfa");
    EXPECT_EQ(altered([](ModelTable& m) {
                  m.entity("Book").property("pages").type = PropertyType::Short;
              }),
              "bfa");
    EXPECT_EQ(altered([](ModelTable& m) { m.entity("Book").relations[0].target = {1, 100}; }),
              "bfa");
    EXPECT_EQ(altered([](ModelTable& m) { m.entity("Book").property("pages").name = "sheets"; }),
              "bf");
    EXPECT_EQ(altered([](ModelTable& m) { m.entity("Shelf").name = "Rack"; }), "bf");
    EXPECT_EQ(altered([](ModelTable& m) { m.entity("Shelf").externalName = "rack"; }), "bf");
    EXPECT_EQ(altered([](ModelTable& m) { m.entity("Shelf").lastPropertyId = {9, 999}; }), "bf");
    EXPECT_EQ(altered([](ModelTable& m) { m.entity("Book").property("title").index.uid = 999; }),
              "bf");
    EXPECT_EQ(altered([](ModelTable& m) {
                  std::swap(m.entity("Book").property("title").index,
                            m.entity("Book").property("authorId").index);
              }),
              "bf");
    for (const auto changeLastId : {+[](ModelTable& m) { m.lastEntityId = {8, 888}; },
                                    +[](ModelTable& m) { m.lastIndexId = {8, 888}; },
                                    +[](ModelTable& m) { m.lastRelationId = {8, 888}; },
                                    +[](ModelTable& m) { m.fourthLastId = {8, 888}; }}) {
        EXPECT_EQ(altered(changeLastId), "bf");
    }
    EXPECT_EQ(altered([](ModelTable& m) { m.entity("Book").property("pages").secondaryName = "s"; }),
              "b");
}

TEST(SchemaHash, LeavesOutFlagsByMask) {
    const auto withFlag = [](uint32_t flag) {
        static uint32_t wanted;
        wanted = flag;
        return altered([](ModelTable& m) { m.entity("Book").property("pages").flags |= wanted; });
    };
    EXPECT_EQ(withFlag(kPropertyNullableScalar), "b");
    EXPECT_EQ(withFlag(kPropertyNotNull), "bf");
    EXPECT_EQ(withFlag(kPropertyUnsigned), "bf");
    EXPECT_EQ(withFlag(kPropertyReserved), "bfa");
    EXPECT_EQ(withFlag(kPropertyReplaceOnConflict), "bfa");
    EXPECT_EQ(altered([](ModelTable& m) { m.entity("Shelf").flags = 1; }), "b");
    EXPECT_EQ(altered([](ModelTable& m) { m.entity("Shelf").flags = 2; }), "bfa");
}

TEST(SchemaHash, NeedsEntities) {
    Catalog catalog;
    catalog.defaultSchema = std::make_shared<Schema>();
    EXPECT_EQ(messageOf<IllegalStateException>([&] { schemaHash(catalog, kBaseHash); }),
              "State condition failed in hash:61: entityContentToHashSize > 0");
}

}  // namespace
}  // namespace quillmere
