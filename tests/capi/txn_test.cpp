#include <atomic>
#include <latch>
#include <thread>
#include <vector>

#include "capi/store_fixture.h"
#include "support/expected_leak.h"

namespace quillmere {
namespace {

using Transactions = OpenStoreTest;

TEST_F(Transactions, KeepWhatSucceedsAndDropTheRest) {
    TxnPtr txn = write();
    uint64_t committed = 9;
    int64_t change = 9;
    EXPECT_EQ(QMR_SUCCESS, qmr_txn_data_size(txn.get(), &committed, &change));
    EXPECT_EQ(0u, committed) << "without a limit sizes are not counted";
    EXPECT_EQ(0, change);
    const uint64_t kept = putNote("kept");
    EXPECT_EQ(QMR_SUCCESS, qmr_txn_success(txn.release()));

    txn = write();
    const uint64_t closed = putNote("closed without success");
    EXPECT_EQ(QMR_SUCCESS, qmr_txn_close(txn.release()));

    txn = write();
    const uint64_t aborted = putNote("aborted");
    EXPECT_EQ(QMR_SUCCESS, qmr_txn_abort(txn.get()));
    EXPECT_EQ(QMR_SUCCESS, qmr_txn_abort(txn.get())) << "a second abort does nothing";
    EXPECT_EQ(QMR_SUCCESS, qmr_txn_close(txn.release()));

    EXPECT_EQ("kept", noteText(kept));
    EXPECT_EQ("(none)", noteText(closed));
    EXPECT_EQ("(none)", noteText(aborted));
    EXPECT_TRUE(noLastError());
}

TEST_F(Transactions, NestedWritersJoinTheOuterOne) {
    TxnPtr outer = write();
    TxnPtr inner = write();
    const uint64_t id = putNote("nested");
    EXPECT_EQ(QMR_SUCCESS, qmr_txn_success(inner.release()));
    std::thread([&] { EXPECT_EQ("(none)", noteText(id)); }).join();
    TxnPtr reader = read();
    EXPECT_EQ("nested", noteText(id));
    EXPECT_EQ(QMR_SUCCESS, qmr_txn_close(reader.release()));
    EXPECT_EQ(QMR_SUCCESS, qmr_txn_success(outer.release()));
    std::thread([&] { EXPECT_EQ("nested", noteText(id)); }).join();
}

TEST_F(Transactions, AFailedNestedWriterFailsTheWhole) {
    TxnPtr outer = write();
    const uint64_t id = putNote("outer");
    TxnPtr inner = write();
    EXPECT_EQ(QMR_SUCCESS, qmr_txn_close(inner.release()));

    // What joins the leftover must not commit on its own behind it.
    EXPECT_EQ(0u, putNote("joins the leftover"));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "TX is not active anymore: #"));
    EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, qmr_txn_success(outer.release()));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "TX is not active anymore: #"));
    EXPECT_EQ("(none)", noteText(id));
    EXPECT_NE(0u, putNote("the thread is free again"));
    EXPECT_EQ(1u, noteCount());
}

TEST_F(Transactions, AnOwnerClosedFirstLeavesTheNestedHandleWithAFailure) {
    TxnPtr outer = write();
    TxnPtr inner = write();
    EXPECT_EQ(QMR_SUCCESS, qmr_txn_close(outer.release()));
    EXPECT_EQ(nullptr, qmr_cursor(inner.get(), kNote));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, ": tx_"));
    EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, qmr_txn_data_size(inner.get(), nullptr, nullptr));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, ":137: tx_"));
    inner.reset();
    EXPECT_NE(0u, putNote("the thread is free again"));
}

TEST_F(Transactions, ReadersDoNotTurnIntoWriters) {
    TxnPtr reader = read();
    EXPECT_EQ(nullptr, qmr_txn_write(store_.get()));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE,
                            "Cannot start a write transaction inside a read only transaction"));
    EXPECT_EQ(0u, putNote("inside a reader"));
    qmr_last_error_clear();
    EXPECT_EQ(QMR_ERROR_ILLEGAL_STATE, qmr_txn_success(reader.release()));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_ILLEGAL_STATE, "Cannot set success on a non-write TX"));
    EXPECT_NE(0u, putNote("the record is gone, the thread free"));
}

TEST_F(Transactions, ReadersKeepTheirSnapshot) {
    const uint64_t id = putNote("old");
    const TxnPtr reader = read();
    const CursorPtr cursor(qmr_cursor(reader.get(), kNote));
    std::thread([&] {
        ObjectBytes changed = makeNote(id, "new");
        EXPECT_EQ(id, qmr_kist_put_object(notes(), changed.data(), changed.size()));
        putNote("another");
        EXPECT_EQ("new", noteText(id));
    }).join();
    EXPECT_EQ("old", noteText(id));
    uint64_t count = 0;
    EXPECT_EQ(QMR_SUCCESS, qmr_cursor_count(cursor.get(), &count));
    EXPECT_EQ(1u, count);
}

TEST_F(Transactions, SurviveAsHandlesWhenTheStoreIsClosedUnderThem) {
    putNote("x");
    TxnPtr txn;
    CursorPtr cursor;
    {
        const ExpectedLeak engineTransaction;
        txn = read();
        cursor.reset(qmr_cursor(txn.get(), kNote));
    }
    close();  // waits for the reader, but not forever
    EXPECT_FALSE(qmr_store_is_open(dir_.storePath().c_str()));
    EXPECT_EQ(nullptr, qmr_cursor(txn.get(), kNote));
    EXPECT_TRUE(lastErrorIs(QMR_ERROR_SHUTTING_DOWN, "Store is already closed"));
    const void* data = nullptr;
    size_t size = 0;
    uint64_t count = 0;
    const char object[8] = {};
    const auto expectClosed = [&](auto call, auto... arguments) {
        EXPECT_EQ(QMR_ERROR_SHUTTING_DOWN, call(cursor.get(), arguments...));
        EXPECT_TRUE(lastErrorIs(QMR_ERROR_SHUTTING_DOWN, "Store is already closed"));
    };
    expectClosed(qmr_cursor_get, 1, &data, &size);
    for (const auto step : {qmr_cursor_first, qmr_cursor_next, qmr_cursor_current}) {
        expectClosed(step, &data, &size);
    }
    expectClosed(qmr_cursor_count, &count);
    expectClosed(qmr_cursor_put, 1, object, sizeof object);
    expectClosed(qmr_cursor_remove, 1);
    EXPECT_EQ(QMR_SUCCESS, qmr_cursor_close(cursor.release()));
    EXPECT_EQ(QMR_SUCCESS, qmr_txn_close(txn.release()));
    open();
    EXPECT_EQ(1u, noteCount());
}

using ConcurrentTransactions = OpenStoreTest;

TEST_F(ConcurrentTransactions, WritersTakeTurnsAndReadersSeeWholeTransactions) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 25;
    std::atomic<bool> writing{true};
    std::latch start(kThreads + 1);
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t) {
        writers.emplace_back([&] {
            start.arrive_and_wait();
            for (int i = 0; i < kRounds; ++i) {
                TxnPtr txn = write();
                putNote("one");
                putNote("two");
                EXPECT_EQ(QMR_SUCCESS, qmr_txn_success(txn.release()));
            }
        });
    }
    std::thread reader([&] {
        start.arrive_and_wait();
        uint64_t last = 0;
        while (writing) {
            const uint64_t count = noteCount();
            EXPECT_EQ(0u, count % 2);
            EXPECT_GE(count, last);
            last = count;
        }
    });
    for (std::thread& writer : writers) writer.join();
    writing = false;
    reader.join();
    EXPECT_EQ(uint64_t{2 * kThreads * kRounds}, noteCount());
}

TEST_F(ConcurrentTransactions, RecordsOpenAndCloseWhileOthersWork) {
    constexpr int kThreads = 4;
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            for (int i = 0; i < 25; ++i) {
                bool attached = false;
                const StorePtr store(qmr_store_attach_or_open(options(), true, &attached));
                ASSERT_TRUE(store) << qmr_last_error_message();
                QMR_kist* kist = qmr_kist(store.get(), kNote);
                ObjectBytes object = makeNote(0, "from a thread");
                EXPECT_NE(0u, qmr_kist_put_object(kist, object.data(), object.size()))
                    << qmr_last_error_message();
            }
        });
    }
    close();  // from now on the last record of any thread closes the store, the next one opens it
    for (std::thread& thread : threads) thread.join();
    open();
    EXPECT_EQ(uint64_t{kThreads * 25}, noteCount());
}

TEST_F(ConcurrentTransactions, AClosingStoreWaitsForItsWriter) {
    std::latch writing(1);
    uint64_t id = 0;
    StorePtr clone(qmr_store_clone(store_.get()));
    std::thread writer([&] {
        TxnPtr txn(qmr_txn_write(clone.get()));
        QMR_kist* kist = qmr_kist(clone.get(), kNote);
        ObjectBytes object = makeNote(0, "in time");
        writing.count_down();
        id = qmr_kist_put_object(kist, object.data(), object.size());
        EXPECT_EQ(QMR_SUCCESS, qmr_txn_success(txn.release())) << qmr_last_error_message();
        clone.reset();
    });
    writing.wait();
    EXPECT_EQ(QMR_SUCCESS, qmr_store_prepare_to_close(store_.get()));
    close();
    writer.join();
    open();
    ASSERT_NE(0u, id);
    EXPECT_EQ("in time", noteText(id));
}

}  // namespace
}  // namespace quillmere
