#include "kv/lmdb/lmdb_error.h"

#include <gtest/gtest.h>

#include "core/error.h"
#include "kv/lmdb/engine/engine.h"
#include "support/expect_throw.h"
#include "support/log_capture.h"

namespace quillmere {
namespace {

// The message of the failure, once its class and code are as expected.
template <class E>
std::string failure(int result, const char* text = "Failed", uint32_t debugFlags = 0) {
    StoreOptions options;
    options.debugFlags = debugFlags;
    const LmdbErrors errors(options);
    const LogCapture log;
    return messageOf<E>([&] {
        try {
            errors.fail(result, text);
        } catch (const StorageException& e) {
            EXPECT_EQ(e.errorCode(), result);
            throw;
        }
    });
}

TEST(LmdbErrors, EachResultHasItsClassAndReason) {
    EXPECT_EQ(failure<DbPagesCorruptException>(MDB_PAGE_NOTFOUND), "Failed (page not found)");
    EXPECT_EQ(failure<DbFileCorruptException>(MDB_CORRUPTED), "Failed (corrupted)");
    EXPECT_EQ(failure<DbShutdownException>(MDB_PANIC), "Failed (store must be shut down)");
    EXPECT_EQ(failure<BadTxException>(MDB_BAD_TXN, nullptr), "Unknown reason (bad TX)");
    EXPECT_EQ(failure<StorageException>(MDB_CURSOR_FULL), "Failed (-30787)");
    // Also with the additional logging, which catches and rethrows.
    EXPECT_EQ(failure<DbFullException>(MDB_MAP_FULL, "Failed", kDebugStorageFailures), "Failed");
}

TEST(LmdbErrors, DamageFoundWhileOpeningIsNoPlainOpenFailure) {
    const LmdbErrors errors{StoreOptions()};
    const LogCapture log;
    EXPECT_EQ(messageOf<DbPagesCorruptException>(
                  [&] { errors.failOpen(MDB_PAGE_NOTFOUND, "Could not open", ""); }),
              "Could not open (page not found)");
    EXPECT_EQ(messageOf<OpenDbException>([&] { errors.failOpen(MDB_PANIC, "Could not open", ""); }),
              "Could not open (-30795)");
}

}  // namespace
}  // namespace quillmere
