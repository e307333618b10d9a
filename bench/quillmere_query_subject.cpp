// Quillmere through its C interface: each question is a query that was built once and gets new
// parameters, run on a cursor.

#include <quillmere/quillmere.h>

#include <cmath>
#include <filesystem>
#include <functional>
#include <map>

#include <flatbuffers/flatbuffers.h>

#include "query_subject.h"
#include "quillmere_work.h"

namespace bench {

namespace {

struct QueryCloser {
    void operator()(QMR_query* query) const { qmr_query_close(query); }
    void operator()(QMR_query_prop* prop) const { qmr_query_prop_close(prop); }
};
using Query = std::unique_ptr<QMR_query, QueryCloser>;
using PropertyQuery = std::unique_ptr<QMR_query_prop, QueryCloser>;

void addProperty(QMR_model* model, const char* name, QMRPropertyType type, uint16_t id,
                 uint32_t flags = 0) {
    check(qmr_model_property(model, name, type, id, 100 + id));
    if (flags) check(qmr_model_property_flags(model, flags));
}
void addIndex(QMR_model* model, uint32_t id, uint32_t indexes) {
    if (id > indexes) return;
    check(qmr_model_property_flags(model, QMRPropertyFlags_INDEXED));
    check(qmr_model_property_index_id(model, id, 300 + id));
}

QMR_model* makeModel(uint32_t indexes) {
    QMR_model* model = check(qmr_model());
    check(qmr_model_entity(model, "Order", kOrderEntity, 1));
    addProperty(model, "id", QMRPropertyType_Long, kId, QMRPropertyFlags_ID);
    addProperty(model, "customer", QMRPropertyType_Int, kCustomer);
    addIndex(model, kCustomerIndex, indexes);
    addProperty(model, "code", QMRPropertyType_String, kCode);
    addIndex(model, kCodeIndex, indexes);
    if (indexes < kOwnerIndex) {
        addProperty(model, "owner", QMRPropertyType_Long, kOwner);
    } else {
        addProperty(model, "owner", QMRPropertyType_Relation, kOwner);
        check(qmr_model_property_flags(
            model, QMRPropertyFlags_INDEXED | QMRPropertyFlags_INDEX_SKIP_ZERO));
        check(qmr_model_property_relation(model, "Group", kOwnerIndex, 300 + kOwnerIndex));
    }
    addProperty(model, "category", QMRPropertyType_Int, kOrderCategory);
    addProperty(model, "price", QMRPropertyType_Double, kOrderPrice);
    addProperty(model, "stock", QMRPropertyType_Int, kOrderStock);
    addProperty(model, "text", QMRPropertyType_String, kText);
    check(qmr_model_entity_last_property_id(model, kText, 100 + kText));
    check(qmr_model_entity(model, "Group", kGroupEntity, 2));
    check(qmr_model_property(model, "id", QMRPropertyType_Long, kId, 201));
    check(qmr_model_property_flags(model, QMRPropertyFlags_ID));
    check(qmr_model_property(model, "region", QMRPropertyType_Int, kRegion, 202));
    check(qmr_model_entity_last_property_id(model, kRegion, 202));
    qmr_model_last_entity_id(model, kGroupEntity, 2);
    if (indexes > 0) qmr_model_last_index_id(model, indexes, 300 + indexes);
    return model;
}

// A query on orders whose conditions `add` writes.
Query makeQuery(QMR_store* store, const std::function<void(QMR_query_builder*)>& add) {
    QMR_query_builder* builder = check(qmr_query_builder(store, kOrderEntity));
    add(builder);
    QMR_query* query = qmr_query(builder);
    qmr_qb_close(builder);
    return Query(check(query));
}

// Every query of the benchmark, and what is asked with it.
class Queries {
public:
    explicit Queries(QMR_store* store) : store_(store) {
        byCustomer_ = make([](auto* b) { qmr_qb_equals_int(b, kCustomer, 0); });
        byCode_ = make([](auto* b) { qmr_qb_equals_string(b, kCode, "", true); });
        scan_ = make([](auto* b) {
            qmr_qb_less_than_int(b, kOrderCategory, 0);
            qmr_qb_greater_or_equal_int(b, kOrderStock, kScanStock);
        });
        inSet_ = make([](auto* b) {
            const int32_t any = 0;
            qmr_qb_in_int32s(b, kOrderStock, &any, 1);
        });
        contains_ = make([](auto* b) { qmr_qb_contains_string(b, kText, "x", true); });
        containsAnyCase_ = make([](auto* b) { qmr_qb_contains_string(b, kText, "x", false); });
        top10_ = make([](auto* b) { qmr_qb_order(b, kOrderPrice, QMROrderFlags_DESCENDING); });
        check(qmr_query_limit(top10_.get(), 10));
        link_ = make([](auto* b) {
            QMR_query_builder* group = check(qmr_qb_link_property(b, kOwner));
            qmr_qb_equals_int(group, kRegion, 0);
            qmr_qb_close(group);
        });
        all_ = make([](auto*) {});
        stock_ = PropertyQuery(check(qmr_query_prop(all_.get(), kOrderStock)));
        distinctStock_ = PropertyQuery(check(qmr_query_prop(all_.get(), kOrderStock)));
        check(qmr_query_prop_distinct(distinctStock_.get(), true));
        price_ = PropertyQuery(check(qmr_query_prop(all_.get(), kOrderPrice)));
    }

    uint64_t ask(QMR_cursor* cursor, Question question, uint32_t n) {
        switch (question) {
            case Question::kByInteger:
                check(qmr_query_param_int(byCustomer_.get(), 0, kCustomer, n));
                return sumOfFound(byCustomer_.get(), cursor);
            case Question::kByString:
                check(qmr_query_param_string(byCode_.get(), 0, kCode, CodeText(n).c_str()));
                return sumOfFound(byCode_.get(), cursor);
            case Question::kCountByInteger:
                check(qmr_query_param_int(byCustomer_.get(), 0, kCustomer, n));
                return count(byCustomer_.get(), cursor);
            case Question::kIdsByInteger:
                check(qmr_query_param_int(byCustomer_.get(), 0, kCustomer, n));
                return sumOfIds(byCustomer_.get(), cursor);
            case Question::kScan:
                check(qmr_query_param_int(scan_.get(), 0, kOrderCategory, n));
                return count(scan_.get(), cursor);
            case Question::kInSet: {
                const std::vector<int32_t> set = stockSet(n);
                check(qmr_query_param_int32s(inSet_.get(), 0, kOrderStock, set.data(),
                                             set.size()));
                return count(inSet_.get(), cursor);
            }
            case Question::kContains:
                check(qmr_query_param_string(contains_.get(), 0, kText, needle(n).c_str()));
                return count(contains_.get(), cursor);
            case Question::kContainsAnyCase:
                check(qmr_query_param_string(containsAnyCase_.get(), 0, kText,
                                             needleInCapitals(n).c_str()));
                return count(containsAnyCase_.get(), cursor);
            case Question::kTop10: return sumOfIds(top10_.get(), cursor);
            case Question::kLink:
                check(qmr_query_param_int(link_.get(), kGroupEntity, kRegion, n));
                return count(link_.get(), cursor);
            default: return aggregate(question);
        }
    }

private:
    Query make(const std::function<void(QMR_query_builder*)>& add) const {
        return makeQuery(store_, add);
    }

    static uint64_t sumOfFound(QMR_query* query, QMR_cursor* cursor) {
        QMR_bytes_array* found = check(qmr_query_cursor_find(query, cursor));
        uint64_t sum = 0;
        for (size_t i = 0; i < found->count; ++i) {
            const auto* order = flatbuffers::GetRoot<flatbuffers::Table>(found->bytes[i].data);
            sum += order->GetField<uint64_t>(flatOffset(kId), 0) +
                   static_cast<uint64_t>(order->GetField<int32_t>(flatOffset(kOrderStock), 0));
        }
        qmr_bytes_array_free(found);
        return sum;
    }
    static uint64_t sumOfIds(QMR_query* query, QMR_cursor* cursor) {
        QMR_id_array* found = check(qmr_query_cursor_find_ids(query, cursor));
        uint64_t sum = 0;
        for (size_t i = 0; i < found->count; ++i) sum += found->ids[i];
        qmr_id_array_free(found);
        return sum;
    }
    static uint64_t count(QMR_query* query, QMR_cursor* cursor) {
        uint64_t count = 0;
        check(qmr_query_cursor_count(query, cursor, &count));
        return count;
    }
    uint64_t aggregate(Question question) {
        if (question == Question::kSum) {
            int64_t sum = 0;
            check(qmr_query_prop_sum_int(stock_.get(), &sum, nullptr));
            return static_cast<uint64_t>(sum);
        }
        if (question == Question::kAverage) {
            double average = 0;
            check(qmr_query_prop_avg(price_.get(), &average, nullptr));
            return static_cast<uint64_t>(std::llround(average * 1000));
        }
        uint64_t count = 0;
        check(qmr_query_prop_count(distinctStock_.get(), &count));
        return count;
    }

    QMR_store* store_;
    Query byCustomer_, byCode_, scan_, inSet_, contains_, containsAnyCase_, top10_, link_, all_;
    PropertyQuery stock_, distinctStock_, price_;
};

class QuillmereQuerySubject : public QuerySubject {
public:
    QuillmereQuerySubject(std::string directory, uint64_t maxSizeInKb)
        : directory_(std::move(directory)), maxSizeInKb_(maxSizeInKb) {}
    ~QuillmereQuerySubject() override { removeAllFiles(); }

    void reset(uint32_t indexes) override {
        removeAllFiles();
        store_ = openStore(directory_, makeModel(indexes), maxSizeInKb_);
    }

    void putOrders(Dataset& orders) override { putAll(kOrderEntity, orders); }
    void putGroups(Dataset& groups) override { putAll(kGroupEntity, groups); }

    std::optional<uint64_t> ask(Question question, const std::vector<uint32_t>& numbers) override {
        if (!queries_) queries_ = std::make_unique<Queries>(store_);
        QuillmereWork work(store_, kOrderEntity, false);
        uint64_t sum = 0;
        for (const uint32_t n : numbers) sum += queries_->ask(work.cursor(), question, n);
        return sum;
    }

private:
    void putAll(qmr_schema_id entity, Dataset& data) {
        QuillmereWork work(store_, entity, true);
        for (uint32_t id = 1; id <= data.count(); ++id) {
            const Object object = data.object(id);
            if (qmr_cursor_put_object(work.cursor(), object.data, object.size) != id) fail();
        }
        work.commit();
    }
    void removeAllFiles() {
        queries_.reset();
        qmr_store_close(store_);
        store_ = nullptr;
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }

    const std::string directory_;
    const uint64_t maxSizeInKb_;
    QMR_store* store_ = nullptr;
    std::unique_ptr<Queries> queries_;
};

}  // namespace

std::unique_ptr<QuerySubject> makeQuillmereQuerySubject(const std::string& directory,
                                                        uint64_t maxSizeInKb) {
    return std::make_unique<QuillmereQuerySubject>(directory, maxSizeInKb);
}

}  // namespace bench
