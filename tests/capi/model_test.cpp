#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

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
        ASSERT_EQ(QMR_SUCCESS, qmr_model_entity(model_, "City", 1, 11));
        ASSERT_EQ(QMR_SUCCESS, qmr_model_property(model_, "id", QMRPropertyType_Long, 1, 101));
        ASSERT_EQ(QMR_SUCCESS, qmr_model_property_flags(model_, QMRPropertyFlags_ID));
        ASSERT_EQ(QMR_SUCCESS,
                  qmr_model_property(model_, "place", QMRPropertyType_FloatVector, 2, 102));
        ASSERT_EQ(QMR_SUCCESS, qmr_model_property_flags(model_, QMRPropertyFlags_INDEXED));
        ASSERT_EQ(QMR_SUCCESS, qmr_model_property_index_id(model_, 1, 103));
        qmr_model_last_index_id(model_, 1, 103);
    }
    // Opens a store with the model, which is gone afterwards.
    bool openWithModel() {
        QMR_store_options* opt = options(false);
        qmr_opt_model(opt, std::exchange(model_, nullptr));
        store_.reset(qmr_store_open(opt));
        return store_ != nullptr;
    }

    QMR_model* model_ = nullptr;
};

TEST_F(ModelFunctions, AnEmptyNameFails) {
    EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT, qmr_model_entity(model_, "", 1, 11));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT, "Name cannot be empty"));
}

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
    const std::vector<std::function<qmr_err(QMR_model*)>> needEntity = {
        [](QMR_model* m) { return qmr_model_entity_flags(m, 1); },
        [](QMR_model* m) { return qmr_model_entity_last_property_id(m, 1, 1); },
        [](QMR_model* m) { return qmr_model_property(m, "id", QMRPropertyType_Long, 1, 1); },
        [](QMR_model* m) { return qmr_model_relation(m, 1, 1, 1, 1); },
    };
    const std::vector<std::function<qmr_err(QMR_model*)>> needProperty = {
        [](QMR_model* m) { return qmr_model_property_flags(m, 1); },
        [](QMR_model* m) { return qmr_model_property_index_id(m, 1, 1); },
        [](QMR_model* m) { return qmr_model_property_relation(m, "City", 1, 1); },
        [](QMR_model* m) { return qmr_model_property_index_hnsw_dimensions(m, 2); },
        [](QMR_model* m) { return qmr_model_property_index_hnsw_neighbors_per_node(m, 2); },
        [](QMR_model* m) { return qmr_model_property_index_hnsw_indexing_search_count(m, 2); },
        [](QMR_model* m) { return qmr_model_property_index_hnsw_flags(m, 2); },
        [](QMR_model* m) { return qmr_model_property_index_hnsw_distance_type(m, 2); },
        [](QMR_model* m) {
            return qmr_model_property_index_hnsw_reparation_backlink_probability(m, 1);
        },
        [](QMR_model* m) { return qmr_model_property_index_hnsw_vector_cache_hint_size_kb(m, 2); },
    };
    for (const auto& call : needEntity) {
        QMR_model* model = qmr_model();
        EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, call(model));
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "No entity started"));
        qmr_model_free(model);
    }
    for (const auto& call : needProperty) {
        QMR_model* model = qmr_model();
        ASSERT_EQ(QMR_SUCCESS, qmr_model_entity(model, "City", 1, 11));
        EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, call(model));
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "No property started"));
        qmr_model_free(model);
    }
}

TEST_F(ModelFunctions, VectorIndexOptionsAreChecked) {
    using Call = std::function<qmr_err(QMR_model*)>;
    struct Case {
        Call call;
        const char* condition;
    };
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const auto probability = [](float value) -> Call {
        return [value](QMR_model* m) {
            return qmr_model_property_index_hnsw_reparation_backlink_probability(m, value);
        };
    };
    const auto distance = [](uint32_t type) -> Call {
        return [type](QMR_model* m) {
            return qmr_model_property_index_hnsw_distance_type(m, type);
        };
    };
    const Case cases[] = {
        {[](QMR_model* m) { return qmr_model_property_index_hnsw_dimensions(m, 0); }, "value > 0"},
        {[](QMR_model* m) { return qmr_model_property_index_hnsw_neighbors_per_node(m, 0); },
         "value > 0"},
        {[](QMR_model* m) { return qmr_model_property_index_hnsw_indexing_search_count(m, 0); },
         "value > 0"},
        {[](QMR_model* m) { return qmr_model_property_index_hnsw_vector_cache_hint_size_kb(m, 0); },
         "value > 0"},
        {distance(0), "value != QMRVectorDistanceType_Unknown"},
        {distance(11), "value <= QMRVectorDistanceType_DotProductNonNormalized"},
        {distance(~0u), "value <= QMRVectorDistanceType_DotProductNonNormalized"},
        {probability(-0.1f), "value >= 0.0f"},
        {probability(nan), "value >= 0.0f"},
        {probability(1.1f), "value <= 1.0f"},
    };
    for (const Case& bad : cases) {
        qmr_model_free(std::exchange(model_, qmr_model()));
        startVectorProperty();
        EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT, bad.call(model_));
        EXPECT_TRUE(lastErrorIs(
            QMR_ERROR_ILLEGAL_ARGUMENT,
            std::string("Argument condition \"") + bad.condition + "\" not met (L"));
    }
}

TEST_F(ModelFunctions, ABuiltModelOpensAStore) {
    startVectorProperty();
    EXPECT_EQ(QMR_SUCCESS, qmr_model_property_index_hnsw_dimensions(model_, 2));
    EXPECT_EQ(QMR_SUCCESS, qmr_model_property_index_hnsw_neighbors_per_node(model_, 8));
    EXPECT_EQ(QMR_SUCCESS, qmr_model_property_index_hnsw_indexing_search_count(model_, 20));
    EXPECT_EQ(QMR_SUCCESS, qmr_model_property_index_hnsw_flags(model_, ~0u));
    EXPECT_EQ(QMR_SUCCESS, qmr_model_property_index_hnsw_distance_type(
                               model_, QMRVectorDistanceType_Cosine));
    EXPECT_EQ(QMR_SUCCESS,
              qmr_model_property_index_hnsw_reparation_backlink_probability(model_, 0.5f));
    EXPECT_EQ(QMR_SUCCESS,
              qmr_model_property_index_hnsw_vector_cache_hint_size_kb(model_, 1024));
    EXPECT_EQ(QMR_SUCCESS, qmr_model_entity_flags(model_, 1));
    EXPECT_EQ(QMR_SUCCESS, qmr_model_entity_last_property_id(model_, 2, 102));
    EXPECT_EQ(QMR_SUCCESS, qmr_model_entity(model_, "Country", 2, 12));
    EXPECT_EQ(QMR_SUCCESS, qmr_model_property(model_, "id", QMRPropertyType_Long, 1, 201));
    EXPECT_EQ(QMR_SUCCESS, qmr_model_property_flags(model_, QMRPropertyFlags_ID));
    EXPECT_EQ(QMR_SUCCESS, qmr_model_property(model_, "capital", QMRPropertyType_Relation, 2, 202));
    const uint32_t indexed = QMRPropertyFlags_INDEXED | QMRPropertyFlags_INDEX_SKIP_ZERO;
    EXPECT_EQ(QMR_SUCCESS, qmr_model_property_flags(model_, indexed));
    EXPECT_EQ(QMR_SUCCESS, qmr_model_property_relation(model_, "City", 2, 203));
    EXPECT_EQ(QMR_SUCCESS, qmr_model_entity_last_property_id(model_, 2, 202));
    EXPECT_EQ(QMR_SUCCESS, qmr_model_relation(model_, 1, 301, 1, 11));
    qmr_model_last_entity_id(model_, 2, 12);
    qmr_model_last_index_id(model_, 2, 203);
    qmr_model_last_relation_id(model_, 1, 301);
    EXPECT_EQ(QMR_SUCCESS, qmr_model_error_code(model_));
    ASSERT_TRUE(openWithModel()) << qmr_last_error_message();
    EXPECT_EQ(2u, qmr_store_entity_property_id(store_.get(), 1, "place"));
    EXPECT_EQ(2u, qmr_store_entity_id(store_.get(), "Country"));
}

TEST_F(ModelFunctions, UnfinishedModelsAreRefused) {
    QMR_store_options* opt = qmr_opt();
    EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, qmr_opt_model(opt, std::exchange(model_, qmr_model())));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "No entities added"));
    qmr_opt_free(opt);

    EXPECT_EQ(QMR_SUCCESS, qmr_model_entity(model_, "City", 1, 11));
    opt = qmr_opt();
    EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, qmr_opt_model(opt, std::exchange(model_, qmr_model())));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "No properties added"));
    qmr_opt_free(opt);

    EXPECT_EQ(QMR_SUCCESS, qmr_model_entity(model_, "City", 1, 11));
    EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, qmr_model_entity(model_, "Country", 2, 12));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "No properties added"));
}

TEST_F(ModelFunctions, WideTypesDoNotWrap) {
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
