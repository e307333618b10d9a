#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "capi/store_fixture.h"

namespace quillmere {
namespace {

// Objects and IDs in the records that the functions for many take.
class Batch {
public:
    Batch& add(uint64_t id, const std::string& text) {
        ids_.push_back(id);
        objects_.push_back(makeNote(id, text));
        return *this;
    }
    const QMR_bytes_array* objects() {
        records_.clear();
        for (const ObjectBytes& object : objects_) {
            records_.push_back({object.data(), object.size()});
        }
        objectArray_ = {records_.data(), records_.size()};
        return &objectArray_;
    }
    const QMR_id_array* ids() {
        idArray_ = {ids_.data(), ids_.size()};
        return &idArray_;
    }

private:
    std::vector<uint64_t> ids_;
    std::vector<ObjectBytes> objects_;
    std::vector<QMR_bytes> records_;
    QMR_bytes_array objectArray_{};
    QMR_id_array idArray_{};
};

class KistFunctions : public OpenStoreTest {
protected:
    qmr_err put(uint64_t id, const std::string& text) {
        const ObjectBytes object = makeNote(id, text);
        return qmr_kist_put(notes(), id, object.data(), object.size());
    }
    bool contains(uint64_t id) {
        bool contains = false;
        EXPECT_EQ(QMR_SUCCESS, qmr_kist_contains(notes(), id, &contains));
        return contains;
    }
};

// Collects what a visitor sees; "-" for an absent object.
struct Visits {
    std::vector<std::string> texts;
    size_t limit = ~size_t{0};

    static bool visit(const void* data, size_t size, void* self) {
        auto& visits = *static_cast<Visits*>(self);
        EXPECT_EQ(data == nullptr, size == 0);
        visits.texts.push_back(data ? objectText(data, kNoteText) : "-");
        return visits.texts.size() < visits.limit;
    }
};

TEST_F(KistFunctions, AreOneRecordPerStoreRecordAndEntity) {
    const StorePtr clone(qmr_store_clone(store_.get()));
    EXPECT_EQ(notes(), notes());
    EXPECT_NE(notes(), tags());
    EXPECT_NE(notes(), qmr_kist(clone.get(), kNote));
    EXPECT_EQ(store_.get(), qmr_kist_store(notes()));
    EXPECT_EQ(nullptr, qmr_kist(store_.get(), 99));
    EXPECT_FALSE(noLastError());
}

TEST_F(KistFunctions, PutModesObeyWhatExists) {
    const ObjectBytes object = makeNote(1, "object");
    const auto call = [&](auto put, uint64_t id, auto... mode) {
        return put(notes(), id, object.data(), object.size(), mode...);
    };
    EXPECT_EQ(QMR_ERROR_ID_NOT_FOUND, call(qmr_kist_update, 1));
    EXPECT_EQ(QMR_SUCCESS, call(qmr_kist_insert, 1));
    EXPECT_EQ(QMR_ERROR_ID_ALREADY_EXISTS, call(qmr_kist_insert, 1));
    EXPECT_TRUE(
        lastErrorIs(QMR_ERROR_ID_ALREADY_EXISTS, "Insert failed, given ID already exists: 1"));
    EXPECT_EQ(QMR_SUCCESS, put(1, "other"));
    EXPECT_EQ(QMR_SUCCESS, call(qmr_kist_update, 1));
    EXPECT_EQ("object", noteText(1));
    EXPECT_EQ(QMR_SUCCESS, call(qmr_kist_put5, 2, QMRPutMode_PutIdGuaranteedToBeNew));
    EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT, call(qmr_kist_put5, 3, 9));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT, "Illegal put mode: 9"));
    EXPECT_EQ(2u, noteCount());
    EXPECT_EQ(QMR_SUCCESS, qmr_kist_remove(notes(), 1));
    EXPECT_EQ(QMR_NOT_FOUND, qmr_kist_remove(notes(), 1));
    EXPECT_FALSE(contains(1));
    EXPECT_TRUE(noLastError());
}

TEST_F(KistFunctions, PutNeedsAnIdAndPutObjectDrawsOne) {
    bool contains = false;
    for (const uint64_t id : {uint64_t{0}, ~uint64_t{0}}) {
        const std::string text = "Illegal ID value: " + std::to_string(id);
        EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT, put(id, "x"));
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT, text));
        EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT, qmr_kist_remove(notes(), id));
        EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT, qmr_kist_contains(notes(), id, &contains));
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT, text));
    }
    ObjectBytes object = makeNote(0, "drawn");
    EXPECT_EQ(1u, qmr_kist_put_object(notes(), object.data(), object.size()));
    EXPECT_EQ(1u, objectValue<uint64_t>(object.data(), 1));
    EXPECT_EQ(0u, qmr_kist_put_object4(notes(), object.data(), object.size(), QMRPutMode_Insert));
    object = makeNote(5, "beyond the sequence");
    EXPECT_EQ(0u, qmr_kist_put_object4(notes(), object.data(), object.size(), QMRPutMode_Update));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ID_NOT_FOUND,
                            "ID is higher or equal to internal ID sequence: 5 (vs. 2). Use ID 0 "
                            "(zero) to insert new objects."));
    EXPECT_EQ(1u, noteCount());
}

TEST_F(KistFunctions, SizeZeroIsRefused) {
    ObjectBytes object = makeNote(1, "x");
    const auto expectRefused = [](qmr_err result) {
        EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT, result);
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT,
                                "Argument condition \"size > 0\" not met (L"));
    };
    for (const auto put : {qmr_kist_put, qmr_kist_insert, qmr_kist_update}) {
        expectRefused(put(notes(), 1, object.data(), 0));
    }
    expectRefused(qmr_kist_put5(notes(), 1, object.data(), 0, QMRPutMode_Put));
    EXPECT_EQ(0u, qmr_kist_put_object(notes(), object.data(), 0));
    expectRefused(qmr_last_error_code());
    EXPECT_EQ(0u, noteCount());
}

TEST_F(KistFunctions, SelfAssignedIdsMoveTheSequence) {
    EXPECT_EQ(9u, qmr_kist_id_for_put(tags(), 9));
    EXPECT_EQ(10u, qmr_kist_id_for_put(tags(), 0));
    EXPECT_EQ(1u, qmr_kist_id_for_put(notes(), 0));
    EXPECT_EQ(0u, qmr_kist_id_for_put(notes(), 9));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT,
                            "ID is higher or equal to internal ID sequence: 9 (vs. 2)"));
}

TEST_F(KistFunctions, ReserveIds) {
    qmr_id first = 0;
    EXPECT_EQ(QMR_SUCCESS, qmr_kist_ids_for_put(notes(), 3, &first));
    EXPECT_EQ(1u, first);
    EXPECT_EQ(QMR_SUCCESS, qmr_kist_ids_for_put(notes(), 10000, &first));
    EXPECT_EQ(4u, first);
    EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT, qmr_kist_ids_for_put(notes(), 10001, &first));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT,
                            "Limit for getting IDs is 10,000, but requested: 10001"));
    for (const uint64_t huge : {~uint64_t{0}, uint64_t{1} << 63}) {
        EXPECT_EQ(QMR_ERROR_NUMERIC_OVERFLOW, qmr_kist_ids_for_put(notes(), huge, &first));
    }
    EXPECT_EQ(4u, first);
    EXPECT_EQ(10004u, qmr_kist_id_for_put(notes(), 0)) << "refused counts reserved nothing";
}

TEST_F(KistFunctions, PutManyStoresAllOrReportsTheRefusedOnes) {
    Batch batch;
    batch.add(1, "one").add(2, "two").add(3, "three");
    EXPECT_EQ(QMR_SUCCESS, qmr_kist_put_many(notes(), batch.objects(), batch.ids(), 1));
    EXPECT_EQ(3u, noteCount());

    // Without stopping, the others are stored all the same.
    Batch inserts;
    inserts.add(4, "four").add(1, "refused").add(5, "five");
    EXPECT_EQ(QMR_ERROR_ID_ALREADY_EXISTS,
              qmr_kist_put_many5(notes(), inserts.objects(), inserts.ids(), 2, false));
    EXPECT_EQ(5u, noteCount());
    EXPECT_EQ("one", noteText(1));
    Batch updates;
    updates.add(1, "uno").add(66, "refused");
    EXPECT_EQ(QMR_ERROR_ID_NOT_FOUND,
              qmr_kist_put_many5(notes(), updates.objects(), updates.ids(), 3, false));
    EXPECT_EQ("uno", noteText(1));
    EXPECT_EQ(QMR_ERROR_ID_NOT_FOUND,
              qmr_kist_put_many(notes(), updates.objects(), updates.ids(), 3));
    EXPECT_TRUE(noLastError()) << "refused IDs are a result, not an error";

    // Stopping keeps nothing.
    Batch stopped;
    stopped.add(6, "six").add(1, "refused");
    EXPECT_EQ(QMR_ERROR_ID_ALREADY_EXISTS,
              qmr_kist_put_many5(notes(), stopped.objects(), stopped.ids(), 2, true));
    EXPECT_FALSE(contains(6));
    EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT,
              qmr_kist_put_many(notes(), stopped.objects(), stopped.ids(), 7)) << "a mode";
    EXPECT_EQ(5u, noteCount());
}

TEST_F(KistFunctions, PutManyRefusesUnevenAndBrokenRecords) {
    Batch three, two;
    three.add(1, "a").add(2, "b").add(3, "c");
    two.add(1, "a").add(2, "b");
    EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT,
              qmr_kist_put_many(notes(), three.objects(), two.ids(), 1));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_ARGUMENT,
                            "Number of IDs does not match number of objects"));

    const ObjectBytes object = makeNote(1, "a");
    const QMR_bytes whole{object.data(), object.size()};
    const QMR_bytes noData[] = {whole, {nullptr, 0}};
    const QMR_bytes noSize[] = {whole, {object.data(), 0}};
    const QMR_bytes* const noRecords = nullptr;
    for (const QMR_bytes* const records : {noData, noSize, noRecords}) {
        const QMR_bytes_array objects{const_cast<QMR_bytes*>(records), 2};
        EXPECT_EQ(QMR_ERROR_ILLEGAL_ARGUMENT, qmr_kist_put_many(notes(), &objects, two.ids(), 1));
    }
    EXPECT_EQ(0u, noteCount());
    const QMR_bytes_array none{nullptr, 0};
    const QMR_id_array noIds{nullptr, 0};
    EXPECT_EQ(QMR_SUCCESS, qmr_kist_put_many(notes(), &none, &noIds, 1));
}

TEST_F(KistFunctions, IdRecordsAreCheckedBeforeTheyAreRead) {
    put(1, "safe");
    const uint64_t id = 1;
    const QMR_id_array broken[] = {
        {nullptr, 1}, {const_cast<uint64_t*>(&id), ~size_t{0}},
        {const_cast<uint64_t*>(&id), (~size_t{0} >> 3) + 1}};  // 8 times this wraps to 0
    for (const QMR_id_array& ids : broken) {
        bool contains = true;
        EXPECT_NE(QMR_SUCCESS, qmr_kist_contains_many(notes(), &ids, &contains));
        EXPECT_NE(QMR_SUCCESS, qmr_kist_remove_many(notes(), &ids, nullptr));
        EXPECT_EQ(nullptr, qmr_kist_get_many(notes(), &ids));
        Visits visits;
        EXPECT_NE(QMR_SUCCESS, qmr_kist_visit_many(notes(), &ids, Visits::visit, &visits));
        EXPECT_TRUE(visits.texts.empty());
        EXPECT_FALSE(noLastError());
    }
    EXPECT_EQ(1u, noteCount());
}

TEST_F(KistFunctions, ReadsThatHandOutViewsNeedATransaction) {
    put(1, "one");
    const void* data = nullptr;
    size_t size = 0;
    const uint64_t id = 1;
    const IdArrayPtr ids(qmr_id_array(&id, 1));
    const auto expectRefused = [](bool failed) {
        EXPECT_TRUE(failed);
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "An existing transaction is required"));
    };
    expectRefused(qmr_kist_get(notes(), 1, &data, &size) == QMR_ERROR_ILLEGAL_STATE);
    expectRefused(!qmr_kist_get_all(notes()));
    expectRefused(!qmr_kist_get_many(notes(), ids.get()));
    EXPECT_NE(0u, putNote("a failed read leaves the thread without a transaction"));
}

TEST_F(KistFunctions, GetManyKeepsPositionsAndGetAllOrder) {
    put(2, "two");
    put(5, "five");
    const TxnPtr txn = read();
    const uint64_t ids[] = {5, 3, 2};
    const IdArrayPtr list(qmr_id_array(ids, 3));
    const BytesArrayPtr some(qmr_kist_get_many(notes(), list.get()));
    ASSERT_TRUE(some);
    ASSERT_EQ(3u, some->count);
    EXPECT_EQ("five", objectText(some->bytes[0].data, kNoteText));
    EXPECT_EQ(nullptr, some->bytes[1].data);
    EXPECT_EQ(0u, some->bytes[1].size);
    EXPECT_EQ("two", objectText(some->bytes[2].data, kNoteText));
    const BytesArrayPtr all(qmr_kist_get_all(notes()));
    ASSERT_EQ(2u, all->count);
    EXPECT_EQ("two", objectText(all->bytes[0].data, kNoteText));

    const void* data = &txn;
    size_t size = 3;
    EXPECT_EQ(QMR_NOT_FOUND, qmr_kist_get(notes(), 3, &data, &size));
    EXPECT_EQ(&txn, data);
    EXPECT_EQ(3u, size);
}

TEST_F(KistFunctions, VisitUntilTheVisitorStops) {
    for (uint64_t id = 1; id <= 4; ++id) put(id, std::to_string(id));
    Visits all;
    EXPECT_EQ(QMR_SUCCESS, qmr_kist_visit_all(notes(), Visits::visit, &all));
    EXPECT_EQ((std::vector<std::string>{"1", "2", "3", "4"}), all.texts);
    Visits two;
    two.limit = 2;
    EXPECT_EQ(QMR_SUCCESS, qmr_kist_visit_all(notes(), Visits::visit, &two));
    EXPECT_EQ((std::vector<std::string>{"1", "2"}), two.texts);

    const uint64_t ids[] = {4, 9, 1};
    const IdArrayPtr list(qmr_id_array(ids, 3));
    Visits some;
    EXPECT_EQ(QMR_SUCCESS, qmr_kist_visit_many(notes(), list.get(), Visits::visit, &some));
    EXPECT_EQ((std::vector<std::string>{"4", "-", "1"}), some.texts);
    some = {};
    some.limit = 1;
    EXPECT_EQ(QMR_SUCCESS, qmr_kist_visit_many(notes(), list.get(), Visits::visit, &some));
    EXPECT_EQ(1u, some.texts.size());
}

TEST_F(KistFunctions, RemoveAndContainMany) {
    for (uint64_t id = 1; id <= 5; ++id) put(id, "x");
    const uint64_t ids[] = {2, 9, 4};
    const IdArrayPtr list(qmr_id_array(ids, 3));
    bool contains = true;
    EXPECT_EQ(QMR_SUCCESS, qmr_kist_contains_many(notes(), list.get(), &contains));
    EXPECT_FALSE(contains);
    EXPECT_EQ(QMR_SUCCESS, qmr_kist_contains_many(notes(), nullptr, &contains));
    EXPECT_TRUE(contains) << "an empty list is contained";

    uint64_t removed = 0;
    EXPECT_EQ(QMR_SUCCESS, qmr_kist_remove_many(notes(), list.get(), &removed));
    EXPECT_EQ(2u, removed);
    uint64_t count = 0;
    EXPECT_EQ(QMR_SUCCESS, qmr_kist_count(notes(), 2, &count));
    EXPECT_EQ(2u, count);
    EXPECT_EQ(3u, noteCount());
    EXPECT_EQ(QMR_SUCCESS, qmr_kist_remove_all(notes(), &removed));
    EXPECT_EQ(3u, removed);
    EXPECT_EQ(QMR_SUCCESS, qmr_kist_remove_all(notes(), nullptr));
    bool empty = false;
    EXPECT_EQ(QMR_SUCCESS, qmr_kist_is_empty(notes(), &empty));
    EXPECT_TRUE(empty);
    EXPECT_EQ(0u, noteCount());
}

using ConcurrentKists = OpenStoreTest;

TEST_F(ConcurrentKists, ThreadsFetchAndUseTheSameRecord) {
    constexpr int kThreads = 4;
    constexpr int kPuts = 50;
    std::vector<std::thread> threads;
    std::vector<std::vector<uint64_t>> drawn(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPuts; ++i) drawn[t].push_back(putNote("x"));
        });
    }
    for (std::thread& thread : threads) thread.join();
    std::vector<uint64_t> all;
    for (const auto& ids : drawn) all.insert(all.end(), ids.begin(), ids.end());
    std::sort(all.begin(), all.end());
    ASSERT_EQ(size_t{kThreads * kPuts}, all.size());
    for (size_t i = 0; i < all.size(); ++i) EXPECT_EQ(i + 1, all[i]);
    EXPECT_EQ(all.size(), noteCount());
}

}  // namespace
}  // namespace quillmere
