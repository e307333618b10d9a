// Values of built queries. Each setter exists for both kinds of address of a condition.

#include "capi/arrays.h"
#include "capi/guard.h"
#include "capi/query_handles.h"
#include "core/checks.h"
#include "core/error.h"
#include "query/query.h"
#include "query/query_parameters.h"
#include "schema/entity.h"

using namespace quillmere;

namespace {

struct PropertyAddress {
    qmr_schema_id entityId;  // 0: the query's own
    qmr_schema_id propertyId;
};
using Alias = const char*;

void checkAddress(const QMR_query* query, PropertyAddress) {
    CHECK_ARG_NOT_NULL(query);
}

void checkAddress(const QMR_query* query, Alias alias) {
    CHECK_ARG_NOT_NULL(query);
    CHECK_ARG_NOT_NULL(alias);
}

QueryConditionWithProperty& findCondition(Query& query, PropertyAddress address) {
    if (address.entityId == 0) {
        if (query.hasLinks()) {
            throwIllegalArgument("Can't use automatic entity_id - the query has links. "
                                 "Please pass non-zero entity_id.");
        }
        address.entityId = query.entity().id();
    }
    return query.findCondition(address.entityId, address.propertyId);
}

QueryConditionWithProperty& findCondition(Query& query, Alias alias) {
    return query.findCondition(alias);
}

// A condition of a query, and its schema for as long as this lives.
class FoundCondition {
public:
    template <class Address>
    FoundCondition(QMR_query& handle, Address address)
        : store_(*handle.query, handle.store), condition_(findCondition(*handle.query, address)) {}

    QueryConditionWithProperty& get() const { return condition_; }

private:
    QueryStore store_;
    QueryConditionWithProperty& condition_;
};

template <class Address>
qmr_err setString(QMR_query* query, Address address, const char* value) {
    return statusCall([&] {
        checkAddress(query, address);
        CHECK_ARG_NOT_NULL(value);
        setStringParam(FoundCondition(*query, address).get(), value);
    });
}

template <class Address>
qmr_err setTwoStrings(QMR_query* query, Address address, const char* value, const char* value2) {
    return statusCall([&] {
        checkAddress(query, address);
        CHECK_ARG_NOT_NULL(value);
        CHECK_ARG_NOT_NULL(value2);
        setTwoStringsParam(FoundCondition(*query, address).get(), value, value2);
    });
}

template <class Address>
qmr_err setStrings(QMR_query* query, Address address, const char* const values[], size_t count) {
    return statusCall([&] {
        checkAddress(query, address);
        CHECK_ARG_NOT_NULL(values);
        setStringsParam(FoundCondition(*query, address).get(), viewStrings(values, count));
    });
}

template <class Address, class Integer>
qmr_err setIntegers(QMR_query* query, Address address, const Integer values[], size_t count) {
    return statusCall([&] {
        checkAddress(query, address);
        CHECK_ARG_NOT_NULL(values);
        setIntegersParam(FoundCondition(*query, address).get(), copyValues(values, count));
    });
}

template <class Address, class Number>
qmr_err setNumber(QMR_query* query, Address address, Number value) {
    return statusCall([&] {
        checkAddress(query, address);
        setNumberParam(FoundCondition(*query, address).get(), value);
    });
}

template <class Address, class Number>
qmr_err setTwoNumbers(QMR_query* query, Address address, Number a, Number b) {
    return statusCall([&] {
        checkAddress(query, address);
        setTwoNumbersParam(FoundCondition(*query, address).get(), a, b);
    });
}

template <class Address>
qmr_err setBytes(QMR_query* query, Address address, const void* value, size_t size) {
    return statusCall([&] {
        checkAddress(query, address);
        CHECK_ARG_NOT_NULL(value);
        setBytesParam(FoundCondition(*query, address).get(), value, size);
    });
}

template <class Address>
size_t typeSize(QMR_query* query, Address address) {
    return numberCall([&] {
        checkAddress(query, address);
        return paramSize(FoundCondition(*query, address).get());
    });
}

}  // namespace

qmr_err qmr_query_param_string(QMR_query* query, qmr_schema_id entity_id, qmr_schema_id property_id,
                               const char* value) {
    return setString(query, PropertyAddress{entity_id, property_id}, value);
}

qmr_err qmr_query_param_2strings(QMR_query* query, qmr_schema_id entity_id,
                                 qmr_schema_id property_id, const char* value, const char* value2) {
    return setTwoStrings(query, PropertyAddress{entity_id, property_id}, value, value2);
}

qmr_err qmr_query_param_strings(QMR_query* query, qmr_schema_id entity_id,
                                qmr_schema_id property_id, const char* const values[],
                                size_t count) {
    return setStrings(query, PropertyAddress{entity_id, property_id}, values, count);
}

qmr_err qmr_query_param_int(QMR_query* query, qmr_schema_id entity_id, qmr_schema_id property_id,
                            int64_t value) {
    return setNumber(query, PropertyAddress{entity_id, property_id}, value);
}

qmr_err qmr_query_param_2ints(QMR_query* query, qmr_schema_id entity_id, qmr_schema_id property_id,
                              int64_t value_a, int64_t value_b) {
    return setTwoNumbers(query, PropertyAddress{entity_id, property_id}, value_a, value_b);
}

qmr_err qmr_query_param_int32s(QMR_query* query, qmr_schema_id entity_id, qmr_schema_id property_id,
                               const int32_t values[], size_t count) {
    return setIntegers(query, PropertyAddress{entity_id, property_id}, values, count);
}

qmr_err qmr_query_param_int64s(QMR_query* query, qmr_schema_id entity_id, qmr_schema_id property_id,
                               const int64_t values[], size_t count) {
    return setIntegers(query, PropertyAddress{entity_id, property_id}, values, count);
}

qmr_err qmr_query_param_double(QMR_query* query, qmr_schema_id entity_id, qmr_schema_id property_id,
                               double value) {
    return setNumber(query, PropertyAddress{entity_id, property_id}, value);
}

qmr_err qmr_query_param_2doubles(QMR_query* query, qmr_schema_id entity_id,
                                 qmr_schema_id property_id, double value_a, double value_b) {
    return setTwoNumbers(query, PropertyAddress{entity_id, property_id}, value_a, value_b);
}

qmr_err qmr_query_param_bytes(QMR_query* query, qmr_schema_id entity_id, qmr_schema_id property_id,
                              const void* value, size_t size) {
    return setBytes(query, PropertyAddress{entity_id, property_id}, value, size);
}

qmr_err qmr_query_param_alias_string(QMR_query* query, const char* alias, const char* value) {
    return setString(query, alias, value);
}

qmr_err qmr_query_param_alias_2strings(QMR_query* query, const char* alias, const char* value,
                                       const char* value2) {
    return setTwoStrings(query, alias, value, value2);
}

qmr_err qmr_query_param_alias_strings(QMR_query* query, const char* alias,
                                      const char* const values[], size_t count) {
    return setStrings(query, alias, values, count);
}

qmr_err qmr_query_param_alias_int(QMR_query* query, const char* alias, int64_t value) {
    return setNumber(query, alias, value);
}

qmr_err qmr_query_param_alias_2ints(QMR_query* query, const char* alias, int64_t value_a,
                                    int64_t value_b) {
    return setTwoNumbers(query, alias, value_a, value_b);
}

qmr_err qmr_query_param_alias_int32s(QMR_query* query, const char* alias, const int32_t values[],
                                     size_t count) {
    return setIntegers(query, alias, values, count);
}

qmr_err qmr_query_param_alias_int64s(QMR_query* query, const char* alias, const int64_t values[],
                                     size_t count) {
    return setIntegers(query, alias, values, count);
}

qmr_err qmr_query_param_alias_double(QMR_query* query, const char* alias, double value) {
    return setNumber(query, alias, value);
}

qmr_err qmr_query_param_alias_2doubles(QMR_query* query, const char* alias, double value_a,
                                       double value_b) {
    return setTwoNumbers(query, alias, value_a, value_b);
}

qmr_err qmr_query_param_alias_bytes(QMR_query* query, const char* alias, const void* value,
                                    size_t size) {
    return setBytes(query, alias, value, size);
}

size_t qmr_query_param_get_type_size(QMR_query* query, qmr_schema_id entity_id,
                                     qmr_schema_id property_id) {
    return typeSize(query, PropertyAddress{entity_id, property_id});
}

size_t qmr_query_param_alias_get_type_size(QMR_query* query, const char* alias) {
    return typeSize(query, alias);
}
