// Values of one property over the matches of a query.

#include <vector>

#include "capi/guard.h"
#include "capi/query_handles.h"
#include "capi/results.h"
#include "core/checks.h"
#include "core/error.h"
#include "query/property_query.h"
#include "query/property_rules.h"
#include "schema/entity.h"
#include "schema/property.h"
#include "store/thread_tx.h"

using namespace quillmere;

namespace {

// What the work makes of a cursor of the query's entity, in a read transaction.
template <class Work>
auto readValues(const QMR_query_prop* prop, Work&& work) {
    ThreadTx tx(QueryStore(*prop->query, prop->store).get(), TxMode::Read,
                &prop->query->entity());
    return work(tx.cursor());
}

template <class Value>
using Aggregate = PropertyQuery::Result<Value> (PropertyQuery::*)(Cursor&);

template <class Value>
void aggregate(QMR_query_prop* prop, Aggregate<Value> compute, Value* outValue,
               int64_t* outCount) {
    if (prop->distinct) throwIllegalArgument("This method doesn't support 'distinct'");
    const auto result =
        readValues(prop, [&](Cursor& cursor) { return (prop->values.*compute)(cursor); });
    *outValue = result.value;
    if (outCount) *outCount = result.count;
}

template <class Array, class Value>
Array* findValues(QMR_query_prop* prop, const Value* nullReplacement) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(prop);
        return makeValueArray<Array>(readValues(prop, [&](Cursor& cursor) {
            return prop->values.findScalars<Value>(cursor, prop->distinct, nullReplacement);
        }));
    });
}

}  // namespace

QMR_query_prop* qmr_query_prop(QMR_query* query, qmr_schema_id property_id) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(query);
        const QueryStore store(*query->query, query->store);
        return new QMR_query_prop(*query, query->query->entity().propertyById(property_id));
    });
}

qmr_err qmr_query_prop_close(QMR_query_prop* prop) {
    return statusCall([&] { delete prop; });
}

qmr_err qmr_query_prop_distinct(QMR_query_prop* prop, bool distinct) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(prop);
        prop->distinct = distinct;
    });
}

qmr_err qmr_query_prop_distinct_case(QMR_query_prop* prop, bool distinct, bool case_sensitive) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(prop);
        const QueryStore store(*prop->query, prop->store);
        requireType(prop->values.property(), PropertyType::String,
                    "Please use the regular 'distinct' instead (without case sensitivity). ");
        prop->distinct = distinct;
        prop->caseSensitive = case_sensitive;
    });
}

qmr_err qmr_query_prop_count(QMR_query_prop* prop, uint64_t* out_count) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(prop);
        CHECK_ARG_NOT_NULL(out_count);
        *out_count = readValues(prop, [&](Cursor& cursor) {
            return prop->distinct ? prop->values.countDistinct(cursor, prop->caseSensitive)
                                  : prop->values.count(cursor);
        });
    });
}

qmr_err qmr_query_prop_avg(QMR_query_prop* prop, double* out_average, int64_t* out_count) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(prop);
        CHECK_ARG_NOT_NULL(out_average);
        aggregate(prop, &PropertyQuery::avgDouble, out_average, out_count);
    });
}

qmr_err qmr_query_prop_sum(QMR_query_prop* prop, double* out_sum, int64_t* out_count) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(prop);
        CHECK_ARG_NOT_NULL(out_sum);
        aggregate(prop, &PropertyQuery::sumDouble, out_sum, out_count);
    });
}

qmr_err qmr_query_prop_min(QMR_query_prop* prop, double* out_minimum, int64_t* out_count) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(prop);
        CHECK_ARG_NOT_NULL(out_minimum);
        aggregate(prop, &PropertyQuery::minDouble, out_minimum, out_count);
    });
}

qmr_err qmr_query_prop_max(QMR_query_prop* prop, double* out_maximum, int64_t* out_count) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(prop);
        CHECK_ARG_NOT_NULL(out_maximum);
        aggregate(prop, &PropertyQuery::maxDouble, out_maximum, out_count);
    });
}

qmr_err qmr_query_prop_avg_int(QMR_query_prop* prop, int64_t* out_average, int64_t* out_count) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(prop);
        CHECK_ARG_NOT_NULL(out_average);
        aggregate(prop, &PropertyQuery::avgInt, out_average, out_count);
    });
}

qmr_err qmr_query_prop_sum_int(QMR_query_prop* prop, int64_t* out_sum, int64_t* out_count) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(prop);
        CHECK_ARG_NOT_NULL(out_sum);
        aggregate(prop, &PropertyQuery::sumInt, out_sum, out_count);
    });
}

qmr_err qmr_query_prop_min_int(QMR_query_prop* prop, int64_t* out_minimum, int64_t* out_count) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(prop);
        CHECK_ARG_NOT_NULL(out_minimum);
        aggregate(prop, &PropertyQuery::minInt, out_minimum, out_count);
    });
}

qmr_err qmr_query_prop_max_int(QMR_query_prop* prop, int64_t* out_maximum, int64_t* out_count) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(prop);
        CHECK_ARG_NOT_NULL(out_maximum);
        aggregate(prop, &PropertyQuery::maxInt, out_maximum, out_count);
    });
}

QMR_string_array* qmr_query_prop_find_strings(QMR_query_prop* prop, const char* value_if_null) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(prop);
        return makeStringArray(readValues(prop, [&](Cursor& cursor) {
            return prop->values.findStrings(cursor, prop->distinct, prop->caseSensitive,
                                            value_if_null);
        }));
    });
}

QMR_double_array* qmr_query_prop_find_doubles(QMR_query_prop* prop, const double* value_if_null) {
    return findValues<QMR_double_array>(prop, value_if_null);
}

QMR_float_array* qmr_query_prop_find_floats(QMR_query_prop* prop, const float* value_if_null) {
    return findValues<QMR_float_array>(prop, value_if_null);
}

QMR_int64_array* qmr_query_prop_find_int64s(QMR_query_prop* prop, const int64_t* value_if_null) {
    return findValues<QMR_int64_array>(prop, value_if_null);
}

QMR_int32_array* qmr_query_prop_find_int32s(QMR_query_prop* prop, const int32_t* value_if_null) {
    return findValues<QMR_int32_array>(prop, value_if_null);
}

QMR_int16_array* qmr_query_prop_find_int16s(QMR_query_prop* prop, const int16_t* value_if_null) {
    return findValues<QMR_int16_array>(prop, value_if_null);
}

QMR_int8_array* qmr_query_prop_find_int8s(QMR_query_prop* prop, const int8_t* value_if_null) {
    return findValues<QMR_int8_array>(prop, value_if_null);
}
