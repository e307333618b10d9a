#include <limits>
#include <string>
#include <utility>

#include "capi/store_fixture.h"

namespace quillmere {
namespace {

class ModelFunctions : public StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        model_ = qmr_model();
        ASSERT_NE(nullptr, model_);
    }
    void TearDown() override { EXPECT_EQ(QMR_SUCCESS, qmr_model_free(model_)); }

    // An entity whose last property can carry vector index options.
    void startVectorProperty() {
        qmr_model_entity(model_, "City", 1, 11);
        qmr_model_property(model_, "id", QMRPropertyType_Long, 1, 101);
        qmr_model_property_flags(model_, QMRPropertyFlags_ID);
        qmr_model_property(model_, "place", QMRPropertyType_FloatVector, 2, 102);
        qmr_model_property_flags(model_, QMRPropertyFlags_INDEXED);
        qmr_model_property_index_id(model_, 1, 103);
        qmr_model_last_index_id(model_, 1, 103);
        ASSERT_EQ(QMR_SUCCESS, qmr_model_error_code(model_));
    }
    QMR_model* model_ = nullptr;
};

TEST_F(ModelFunctions, TheFirstFailureSticks) {
    EXPECT_EQ(QMR_SUCCESS, qmr_model_error_code(model_));
    EXPECT_STREQ("", qmr_model_error_message(model_));
    EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, qmr_model_entity_flags(model_, 1));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "No entity started"));

    // What follows has no effect and sets no error of its own.
    EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, qmr_model_entity(model_, "City", 1, 11));
    EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, qmr_model_entity(model_, nullptr, 1, 11));
    EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, qmr_model_property(model_, "id", 6, 1, 101));
    qmr_model_last_entity_id(model_, 1, 11);
    EXPECT_TRUE(noLastError());
    EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, qmr_model_error_code(model_));
    EXPECT_STREQ("No entity started", qmr_model_error_message(model_));

    // The options take the failure over and refuse to open.
    QMR_store_options* opt = options(false);
    EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, qmr_opt_model(opt, std::exchange(model_, nullptr)));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "No entity started"));
    EXPECT_EQ(nullptr, qmr_store_open(opt));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT,
                            "An error had occurred before during setting options"));
}

TEST_F(ModelFunctions, EachElementNeedsItsPlace) {
    const auto expectRefused = [](bool withEntity, auto call, auto... arguments) {
        QMR_model* const model = qmr_model();
        if (withEntity) qmr_model_entity(model, "City", 1, 11);
        EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, call(model, arguments...));
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE,
                                withEntity ? "No property started" : "No entity started"));
        qmr_model_free(model);
    };
    expectRefused(false, qmr_model_entity_flags, 1);
    expectRefused(false, qmr_model_entity_last_property_id, 1, 1);
    expectRefused(false, qmr_model_property, "id", QMRPropertyType_Long, 1, 1);
    expectRefused(false, qmr_model_relation, 1, 1, 1, 1);
    expectRefused(true, qmr_model_property_flags, 1);
    expectRefused(true, qmr_model_property_index_id, 1, 1);
    expectRefused(true, qmr_model_property_relation, "City", 1, 1);
    expectRefused(true, qmr_model_property_index_hnsw_dimensions, 2);
    expectRefused(true, qmr_model_property_index_hnsw_neighbors_per_node, 2);
    expectRefused(true, qmr_model_property_index_hnsw_indexing_search_count, 2);
    expectRefused(true, qmr_model_property_index_hnsw_flags, 2);
    expectRefused(true, qmr_model_property_index_hnsw_distance_type, 2);
    expectRefused(true, qmr_model_property_index_hnsw_reparation_backlink_probability, 1);
    expectRefused(true, qmr_model_property_index_hnsw_vector_cache_hint_size_kb, 2);
}

TEST_F(ModelFunctions, VectorIndexOptionsAreChecked) {
    const auto expectRefused = [&](const std::string& condition, auto call, auto value) {
        qmr_model_free(std::exchange(model_, qmr_model()));
        startVectorProperty();
        EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT, call(model_, value));
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT,
                                "Argument condition \"" + condition + "\" not met (L"));
    };
    const auto distance = qmr_model_property_index_hnsw_distance_type;
    const auto probability = qmr_model_property_index_hnsw_reparation_backlink_probability;
    expectRefused("value > 0", qmr_model_property_index_hnsw_dimensions, 0);
    expectRefused("value > 0", qmr_model_property_index_hnsw_neighbors_per_node, 0);
    expectRefused("value > 0", qmr_model_property_index_hnsw_indexing_search_count, 0);
    expectRefused("value > 0", qmr_model_property_index_hnsw_vector_cache_hint_size_kb, 0);
    expectRefused("value != QMRVectorDistanceType_Unknown", distance, 0);
    for (const uint32_t type : {11u, ~0u}) {
        expectRefused("value <= QMRVectorDistanceType_DotProductNonNormalized", distance, type);
    }
    expectRefused("value >= 0.0f", probability, -0.1f);
    expectRefused("value >= 0.0f", probability, std::numeric_limits<float>::quiet_NaN());
    expectRefused("value <= 1.0f", probability, 1.1f);
}

TEST_F(ModelFunctions, ABuiltModelOpensAStore) {
    startVectorProperty();
    qmr_model_property_index_hnsw_dimensions(model_, 2);
    qmr_model_property_index_hnsw_neighbors_per_node(model_, 8);
    qmr_model_property_index_hnsw_indexing_search_count(model_, 20);
    qmr_model_property_index_hnsw_flags(model_, ~0u);
    qmr_model_property_index_hnsw_distance_type(model_, QMRVectorDistanceType_Cosine);
    qmr_model_property_index_hnsw_reparation_backlink_probability(model_, 0.5f);
    qmr_model_property_index_hnsw_vector_cache_hint_size_kb(model_, 1024);
    qmr_model_entity_flags(model_, 1);
    qmr_model_entity_last_property_id(model_, 2, 102);
    qmr_model_entity(model_, "Country", 2, 12);
    qmr_model_property(model_, "id", QMRPropertyType_Long, 1, 201);
    qmr_model_property_flags(model_, QMRPropertyFlags_ID);
    qmr_model_property(model_, "capital", QMRPropertyType_Relation, 2, 202);
    qmr_model_property_flags(model_, QMRPropertyFlags_INDEXED | QMRPropertyFlags_INDEX_SKIP_ZERO);
    qmr_model_property_relation(model_, "City", 2, 203);
    qmr_model_entity_last_property_id(model_, 2, 202);
    qmr_model_relation(model_, 1, 301, 1, 11);
    qmr_model_last_entity_id(model_, 2, 12);
    qmr_model_last_index_id(model_, 2, 203);
    qmr_model_last_relation_id(model_, 1, 301);
    EXPECT_EQ(QMR_SUCCESS, qmr_model_error_code(model_));
    QMR_store_options* opt = options(false);
    qmr_opt_model(opt, std::exchange(model_, nullptr));
    store_.reset(qmr_store_open(opt));
    ASSERT_TRUE(store_) << qmr_last_error_message();
    EXPECT_EQ(2u, qmr_store_entity_property_id(store_.get(), 1, "place"));
    EXPECT_EQ(2u, qmr_store_entity_id(store_.get(), "Country"));
}

TEST_F(ModelFunctions, UnfinishedModelsAreRefused) {
    for (const char* const text : {"No entities added", "No properties added"}) {
        QMR_store_options* opt = qmr_opt();
        EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, qmr_opt_model(opt, std::exchange(model_, qmr_model())));
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, text));
        qmr_opt_free(opt);
        EXPECT_EQ(QMR_SUCCESS, qmr_model_entity(model_, "City", 1, 11));
    }
    EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, qmr_model_entity(model_, "Country", 2, 12));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "No properties added"));
}

TEST_F(ModelFunctions, EmptyNamesAndTypesThatWouldWrapAreRefused) {
    EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT, qmr_model_entity(model_, "", 1, 11));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT, "Name cannot be empty"));
    qmr_model_free(std::exchange(model_, qmr_model()));
    EXPECT_EQ(QMR_SUCCESS, qmr_model_entity(model_, "City", 1, 11));
    const uint32_t tooWide = 0x10000 + QMRPropertyType_Long;
    EXPECT_EQ(QMR_ERROR_NUMERIC_OVERFLOW, qmr_model_property(model_, "id", tooWide, 1, 101));
    EXPECT_FALSE(noLastError());
}

TEST_F(ModelFunctions, OptionsTakeTheModelOnFailureToo) {
    EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT,
              qmr_opt_model(nullptr, std::exchange(model_, qmr_model())));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT, "Argument \"opt\" must not be null (L"));
    QMR_store_options* opt = options(false);
    EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT, qmr_opt_model(opt, nullptr));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT, "Argument \"model\" must not be null (L"));
    EXPECT_EQ(nullptr, qmr_store_open(opt));
    EXPECT_FALSE(noLastError());
}

}  // namespace
}  // namespace quillmere
