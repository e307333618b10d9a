// Runs of queries. Each begins a read transaction, or joins the one of the thread; the forms with a
// cursor run in the transaction of that one.

#include <string>
#include <vector>

#include "capi/guard.h"
#include "capi/query_handles.h"
#include "capi/results.h"
#include "core/checks.h"
#include "core/error.h"
#include "query/query.h"
#include "store/cursor.h"
#include "store/thread_tx.h"

using namespace quillmere;

namespace {

// A transaction that lasts as long as the call, with a cursor of the query's entity.
class QueryTx {
public:
    QueryTx(const QMR_query* query, TxMode mode)
        : tx_(QueryStore(*query->query, query->store).get(), mode, &query->query->entity()) {}

    Cursor& cursor() { return tx_.cursor(); }
    // Views into a transaction that ends with the call would dangle.
    ObjectData objectData() const { return tx_.isOwner() ? ObjectData::Copies : ObjectData::Views; }
    void markSuccess() { tx_.markSuccess(); }

private:
    ThreadTx tx_;
};

// The cursor given by the caller; whether it is of the query's entity is checked when it runs.
Cursor& usableCursor(const QMR_query* query, const QMR_cursor* cursor) {
    CHECK_STATE(cursor->cursor);
    const QueryStore store(*query->query, query->store);
    if (&liveTx(*cursor).store() != &store.get()) {
        throwIllegalArgument("The given cursor is of another store than the query");
    }
    return *cursor->cursor;
}

uint64_t countMatches(const QMR_query* query, Cursor& cursor) {
    return query->query->count(cursor, query->limit);
}

void refuseOffset(const QMR_query* query) {
    if (query->offset == 0) return;
    throwException("Query offset is not supported by count() at this moment.");
}

void refuseWindow(const QMR_query* query, const char* operation) {
    if (query->offset == 0 && query->limit == 0) return;
    throwException("Query limit/offset are not supported by ", operation, "() at this moment.");
}

QMR_bytes_array* findObjects(const QMR_query* query, Cursor& cursor, ObjectData data) {
    std::vector<Bytes> objects;
    query->query->find(cursor, objects, query->offset, query->limit);
    return makeBytesArray(objects, data);
}

QMR_id_array* findIds(const QMR_query* query, Cursor& cursor) {
    std::vector<uint64_t> ids;
    query->query->findIds(cursor, ids, query->offset, query->limit);
    return makeIdArray(ids);
}

using FindOne = bool (Query::*)(Cursor&, Bytes&);

bool findOne(QMR_query* query, const void** data, size_t* size, FindOne find) {
    CHECK_ARG_NOT_NULL(query);
    CHECK_ARG_NOT_NULL(data);
    CHECK_ARG_NOT_NULL(size);
    QueryTx tx(query, TxMode::Read);
    Bytes object;
    if (!((*query->query).*find)(tx.cursor(), object)) return false;
    if (tx.objectData() == ObjectData::Copies) {
        query->object.assign(object.data(), object.size());
        object.setView(query->object.data(), object.size());
    }
    *data = object.data();
    *size = object.size();
    return true;
}

void visitObjects(const QMR_query* query, Cursor& cursor, QMR_data_visitor* visitor,
                  void* userData) {
    query->query->visit(cursor, query->offset, query->limit, [&](const Bytes& object) {
        return visitor(object.data(), object.size(), userData);
    });
}

std::vector<Query::IdScore> findScores(const QMR_query* query, Cursor& cursor) {
    return query->query->findIdsWithScores(cursor, query->offset, query->limit);
}

}  // namespace

QMR_query* qmr_query_clone(QMR_query* query) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(query);
        const QueryStore store(*query->query, query->store);
        auto* const clone = new QMR_query(query->query->clone(), query->store);
        clone->offset = query->offset;
        clone->limit = query->limit;
        return clone;
    });
}

qmr_err qmr_query_close(QMR_query* query) {
    return statusCall([&] { delete query; });
}

qmr_err qmr_query_offset(QMR_query* query, uint64_t offset) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(query);
        query->offset = offset;
    });
}

qmr_err qmr_query_limit(QMR_query* query, uint64_t limit) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(query);
        query->limit = limit;
    });
}

qmr_err qmr_query_offset_limit(QMR_query* query, uint64_t offset, uint64_t limit) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(query);
        query->offset = offset;
        query->limit = limit;
    });
}

qmr_err qmr_query_count(QMR_query* query, uint64_t* out_count) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(query);
        CHECK_ARG_NOT_NULL(out_count);
        refuseOffset(query);
        QueryTx tx(query, TxMode::Read);
        *out_count = countMatches(query, tx.cursor());
    });
}

qmr_err qmr_query_cursor_count(QMR_query* query, QMR_cursor* cursor, uint64_t* out_count) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(query);
        CHECK_ARG_NOT_NULL(cursor);
        CHECK_ARG_NOT_NULL(out_count);
        refuseOffset(query);
        *out_count = countMatches(query, usableCursor(query, cursor));
    });
}

QMR_bytes_array* qmr_query_find(QMR_query* query) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(query);
        QueryTx tx(query, TxMode::Read);
        return findObjects(query, tx.cursor(), tx.objectData());
    });
}

QMR_bytes_array* qmr_query_cursor_find(QMR_query* query, QMR_cursor* cursor) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(query);
        CHECK_ARG_NOT_NULL(cursor);
        return findObjects(query, usableCursor(query, cursor), ObjectData::Views);
    });
}

QMR_id_array* qmr_query_find_ids(QMR_query* query) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(query);
        QueryTx tx(query, TxMode::Read);
        return findIds(query, tx.cursor());
    });
}

QMR_id_array* qmr_query_cursor_find_ids(QMR_query* query, QMR_cursor* cursor) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(query);
        CHECK_ARG_NOT_NULL(cursor);
        return findIds(query, usableCursor(query, cursor));
    });
}

qmr_err qmr_query_find_first(QMR_query* query, const void** data, size_t* size) {
    return foundCall([&] { return findOne(query, data, size, &Query::findFirst); });
}

qmr_err qmr_query_find_unique(QMR_query* query, const void** data, size_t* size) {
    return foundCall([&] { return findOne(query, data, size, &Query::findUnique); });
}

QMR_id_array* qmr_query_find_ids_by_score(QMR_query* query) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(query);
        QueryTx tx(query, TxMode::Read);
        return makeIdArray(
            query->query->findIdsByScore(tx.cursor(), query->offset, query->limit));
    });
}

QMR_id_score_array* qmr_query_find_ids_with_scores(QMR_query* query) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(query);
        QueryTx tx(query, TxMode::Read);
        const std::vector<Query::IdScore> scores = findScores(query, tx.cursor());
        QMR_id_score_array* const array = makeIdScoreArray(scores.size());
        QMR_id_score* element = array->ids_scores;
        for (const Query::IdScore& score : scores) *element++ = {score.id, score.score};
        return array;
    });
}

QMR_bytes_score_array* qmr_query_find_with_scores(QMR_query* query) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(query);
        QueryTx tx(query, TxMode::Read);
        std::vector<QMR_bytes_score> found;
        for (const auto& [id, score, object] :
             query->query->findWithScores(tx.cursor(), query->offset, query->limit)) {
            found.push_back({id, score, object.data(), object.size()});
        }
        return makeBytesScoreArray(found, tx.objectData());
    });
}

qmr_err qmr_query_visit(QMR_query* query, QMR_data_visitor* visitor, void* user_data) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(query);
        CHECK_ARG_NOT_NULL(visitor);
        QueryTx tx(query, TxMode::Read);
        visitObjects(query, tx.cursor(), visitor, user_data);
    });
}

qmr_err qmr_query_cursor_visit(QMR_query* query, QMR_cursor* cursor, QMR_data_visitor* visitor,
                               void* user_data) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(query);
        CHECK_ARG_NOT_NULL(cursor);
        CHECK_ARG_NOT_NULL(visitor);
        visitObjects(query, usableCursor(query, cursor), visitor, user_data);
    });
}

qmr_err qmr_query_visit_with_score(QMR_query* query, QMR_data_score_visitor* visitor,
                                   void* user_data) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(query);
        CHECK_ARG_NOT_NULL(visitor);
        QueryTx tx(query, TxMode::Read);
        Cursor& cursor = tx.cursor();
        Bytes object;
        for (const auto& [id, score] : findScores(query, cursor)) {
            if (!cursor.get(id, object)) throwIllegalState("Could not get search result");
            if (!visitor(object.data(), object.size(), score, user_data)) return;
        }
    });
}

qmr_err qmr_query_remove(QMR_query* query, uint64_t* out_count) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(query);
        refuseWindow(query, "remove");
        QueryTx tx(query, TxMode::Write);
        const uint64_t count = query->query->remove(tx.cursor());
        tx.markSuccess();
        if (out_count) *out_count = count;
    });
}

qmr_err qmr_query_cursor_remove(QMR_query* query, QMR_cursor* cursor, uint64_t* out_count) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(query);
        CHECK_ARG_NOT_NULL(cursor);
        refuseWindow(query, "remove");
        const uint64_t count = query->query->remove(usableCursor(query, cursor));
        if (out_count) *out_count = count;
    });
}

const char* qmr_query_describe(QMR_query* query) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(query);
        query->description = query->query->describe();
        return query->description.c_str();
    });
}

const char* qmr_query_describe_params(QMR_query* query) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(query);
        const QueryStore store(*query->query, query->store);
        query->parameters = query->query->describeParameters();
        return query->parameters.c_str();
    });
}
