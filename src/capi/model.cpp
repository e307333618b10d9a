#include "capi/model.h"

#include <exception>
#include <memory>

#include "capi/guard.h"
#include "capi/options.h"
#include "core/cast.h"
#include "core/checks.h"

using namespace quillmere;

namespace {

// Keeps the failure that the thread's last error tells of.
void recordFailure(QMR_model& model, qmr_err code) noexcept {
    model.errorCode = code;
    try {
        model.errorMessage = qmr_last_error_message();
    } catch (const std::exception&) {
        // No memory for the text: the code alone stays.
    }
}

// The frame of all functions that change a model.
template <class Work>
qmr_err modelCall(QMR_model* model, Work&& work) {
    if (model && model->errorCode) return model->errorCode;
    const qmr_err code = statusCall([&] {
        CHECK_ARG_NOT_NULL(model);
        work(model->builder);
    });
    if (code && model) recordFailure(*model, code);
    return code;
}

// Finishes the model and hands its bytes to the options; gives the code of a failure that is stored
// already, as the last error is.
qmr_err finishInto(QMR_store_options* opt, QMR_model* model) {
    CHECK_ARG_NOT_NULL(opt);
    CHECK_ARG_NOT_NULL(model);
    if (model->errorCode) {
        setLastError(model->errorCode, 0, model->errorMessage.c_str());
        return model->errorCode;
    }
    model->builder.finish();
    const void* bytes = model->builder.data();
    CHECK_STATE(bytes);
    return qmr_opt_model_bytes(opt, bytes, model->builder.size());
}

}  // namespace

QMR_model* qmr_model(void) {
    return pointerCall([] { return new QMR_model; });
}

qmr_err qmr_model_free(QMR_model* model) {
    return statusCall([&] { delete model; });
}

qmr_err qmr_model_error_code(QMR_model* model) {
    return modelCall(model, [](ModelBuilder&) {});
}

const char* qmr_model_error_message(QMR_model* model) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(model);
        return model->errorMessage.c_str();
    });
}

qmr_err qmr_model_entity(QMR_model* model, const char* name, qmr_schema_id id, qmr_uid uid) {
    return modelCall(model, [&](ModelBuilder& builder) {
        CHECK_ARG_NOT_NULL(name);
        builder.entity(name, id, uid);
    });
}

qmr_err qmr_model_entity_flags(QMR_model* model, uint32_t flags) {
    return modelCall(model, [&](ModelBuilder& builder) { builder.entityFlags(flags); });
}

qmr_err qmr_model_entity_last_property_id(QMR_model* model, qmr_schema_id id, qmr_uid uid) {
    return modelCall(model, [&](ModelBuilder& builder) { builder.entityLastPropertyId(id, uid); });
}

qmr_err qmr_model_property(QMR_model* model, const char* name, uint32_t type, qmr_schema_id id,
                           qmr_uid uid) {
    return modelCall(model, [&](ModelBuilder& builder) {
        CHECK_ARG_NOT_NULL(name);
        builder.property(name, PropertyType{checkedCast<uint16_t>(type)}, id, uid);
    });
}

qmr_err qmr_model_property_flags(QMR_model* model, uint32_t flags) {
    return modelCall(model, [&](ModelBuilder& builder) { builder.propertyFlags(flags); });
}

qmr_err qmr_model_property_index_id(QMR_model* model, qmr_schema_id index_id, qmr_uid index_uid) {
    return modelCall(model,
                     [&](ModelBuilder& builder) { builder.propertyIndexId(index_id, index_uid); });
}

qmr_err qmr_model_property_relation(QMR_model* model, const char* target_entity,
                                    qmr_schema_id index_id, qmr_uid index_uid) {
    return modelCall(model, [&](ModelBuilder& builder) {
        CHECK_ARG_NOT_NULL(target_entity);
        builder.propertyRelation(target_entity, index_id, index_uid);
    });
}

qmr_err qmr_model_property_index_hnsw_dimensions(QMR_model* model, size_t value) {
    return modelCall(model, [&](ModelBuilder& builder) {
        CHECK_ARG(value > 0);
        builder.hnswDimensions(value);
    });
}

qmr_err qmr_model_property_index_hnsw_neighbors_per_node(QMR_model* model, uint32_t value) {
    return modelCall(model, [&](ModelBuilder& builder) {
        CHECK_ARG(value > 0);
        builder.hnswNeighborsPerNode(value);
    });
}

qmr_err qmr_model_property_index_hnsw_indexing_search_count(QMR_model* model, uint32_t value) {
    return modelCall(model, [&](ModelBuilder& builder) {
        CHECK_ARG(value > 0);
        builder.hnswIndexingSearchCount(value);
    });
}

qmr_err qmr_model_property_index_hnsw_flags(QMR_model* model, uint32_t value) {
    return modelCall(model, [&](ModelBuilder& builder) { builder.hnswFlags(value); });
}

qmr_err qmr_model_property_index_hnsw_distance_type(QMR_model* model, uint32_t value) {
    return modelCall(model, [&](ModelBuilder& builder) {
        CHECK_ARG(value != QMRVectorDistanceType_Unknown);
        CHECK_ARG(value <= QMRVectorDistanceType_DotProductNonNormalized);
        builder.hnswDistanceType(VectorDistanceType{value});
    });
}

qmr_err qmr_model_property_index_hnsw_reparation_backlink_probability(QMR_model* model,
                                                                      float value) {
    return modelCall(model, [&](ModelBuilder& builder) {
        CHECK_ARG(value >= 0.0f);
        CHECK_ARG(value <= 1.0f);
        builder.hnswReparationBacklinkProbability(value);
    });
}

qmr_err qmr_model_property_index_hnsw_vector_cache_hint_size_kb(QMR_model* model, uint64_t value) {
    return modelCall(model, [&](ModelBuilder& builder) {
        CHECK_ARG(value > 0);
        builder.hnswVectorCacheHintSizeKb(value);
    });
}

qmr_err qmr_model_relation(QMR_model* model, qmr_schema_id id, qmr_uid uid,
                           qmr_schema_id target_id, qmr_uid target_uid) {
    return modelCall(model, [&](ModelBuilder& builder) {
        builder.relation(id, uid, target_id, target_uid);
    });
}

void qmr_model_last_entity_id(QMR_model* model, qmr_schema_id id, qmr_uid uid) {
    modelCall(model, [&](ModelBuilder& builder) { builder.lastEntityId(id, uid); });
}

void qmr_model_last_index_id(QMR_model* model, qmr_schema_id id, qmr_uid uid) {
    modelCall(model, [&](ModelBuilder& builder) { builder.lastIndexId(id, uid); });
}

void qmr_model_last_relation_id(QMR_model* model, qmr_schema_id id, qmr_uid uid) {
    modelCall(model, [&](ModelBuilder& builder) { builder.lastRelationId(id, uid); });
}

qmr_err qmr_opt_model(QMR_store_options* opt, QMR_model* model) {
    qmr_err stored = 0;
    const qmr_err thrown = statusCall([&] {
        const std::unique_ptr<QMR_model> consumed(model);
        stored = finishInto(opt, model);
    });
    const qmr_err code = thrown ? thrown : stored;
    if (code && opt) opt->options.hadError = true;
    return code;
}
