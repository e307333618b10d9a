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

// Stored hashes are compared with new ones: these must never change.
TEST(SchemaHash, StaysTheSameForGood) {
    EXPECT_EQ(hashText(libraryModel(), kBindingHash), "a3a97bd92727fd12fc0ceeeca7715a69");
    EXPECT_EQ(hashText(libraryModel(), kFullHash), "a3a97bd92727fd12fc0ceeeca7715a69");
    EXPECT_EQ(hashText(libraryModel(), kBaseHash), "6d73c7206af5c40bada191eb5ef659b1");
}

PropertySpec& bookProperty(ModelTable& model, const char* name) {
    return model.entity("Book").property(name);
}

TEST(SchemaHash, LeavesOutWhatItsOptionsSay) {
    using M = ModelTable;
    struct Case {
        void (*change)(M&);
        const char* altered;  // a letter for each hash that changes: binding, full, base
    };
    const Case cases[] = {
        {[](M& m) {
             std::ranges::reverse(m.entities);
             std::ranges::reverse(m.entity("Book").properties);
         }, ""},
        {[](M& m) { m.userVersion = 9; }, ""},
        {[](M& m) { bookProperty(m, "pages").id.uid = 999; }, "bfa"},
        {[](M& m) { bookProperty(m, "pages").type = PropertyType::Short; }, "bfa"},
        {[](M& m) { m.entity("Book").relations[0].target = {1, 100}; }, "bfa"},
        {[](M& m) { bookProperty(m, "pages").name = "sheets"; }, "bf"},
        {[](M& m) { m.entity("Shelf").name = "Rack"; }, "bf"},
        {[](M& m) { m.entity("Shelf").externalName = "rack"; }, "bf"},
        {[](M& m) { m.entity("Shelf").lastPropertyId = {9, 999}; }, "bf"},
        {[](M& m) { bookProperty(m, "title").index.uid = 999; }, "bf"},
        {[](M& m) { std::swap(bookProperty(m, "title").index, bookProperty(m, "authorId").index); },
         "bf"},
        {[](M& m) { m.lastEntityId = {8, 888}; }, "bf"},
        {[](M& m) { m.lastIndexId = {8, 888}; }, "bf"},
        {[](M& m) { m.lastRelationId = {8, 888}; }, "bf"},
        {[](M& m) { m.fourthLastId = {8, 888}; }, "bf"},
        {[](M& m) { bookProperty(m, "pages").secondaryName = "s"; }, "b"},
        {[](M& m) { bookProperty(m, "pages").flags |= kPropertyNullableScalar; }, "b"},
        {[](M& m) { bookProperty(m, "pages").flags |= kPropertyNotNull; }, "bf"},
        {[](M& m) { bookProperty(m, "pages").flags |= kPropertyUnsigned; }, "bf"},
        {[](M& m) { bookProperty(m, "pages").flags |= kPropertyReserved; }, "bfa"},
        {[](M& m) { bookProperty(m, "pages").flags |= kPropertyReplaceOnConflict; }, "bfa"},
        {[](M& m) { m.entity("Shelf").flags = kEntityFlag1; }, "b"},
        {[](M& m) { m.entity("Shelf").flags = kEntitySyncEnabled; }, "bfa"},
    };
    for (const Case& test : cases) {
        ModelTable spec = libraryModel();
        test.change(spec);
        std::string altered;
        for (const auto& [options, letter] :
             {std::pair{kBindingHash, 'b'}, {kFullHash, 'f'}, {kBaseHash, 'a'}}) {
            if (hashText(spec, options) != hashText(libraryModel(), options)) altered += letter;
        }
        EXPECT_EQ(altered, test.altered) << "case " << &test - cases;
    }
}

TEST(SchemaHash, NeedsEntities) {
    Catalog catalog;
    catalog.defaultSchema = std::make_shared<Schema>();
    EXPECT_EQ(messageOf<IllegalStateException>([&] { schemaHash(catalog, kBaseHash); }),
              "State condition failed in hash:61: entityContentToHashSize > 0");
}

}  // namespace
}  // namespace quillmere
