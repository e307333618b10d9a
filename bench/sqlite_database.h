#pragma once

// SQLite with a write-ahead log, a page cache and a memory map that hold the whole database.

#include <sqlite3.h>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "dataset.h"

namespace bench {

class Database {
public:
    // Makes the tables, each by an SQL statement that ends in a semicolon.
    Database(const std::string& file, const char* tables) {
        const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
        try {
            check(sqlite3_open_v2(file.c_str(), &db_, flags, nullptr));
            run(kSetUp);
            run(tables);
        } catch (...) {
            sqlite3_close(db_);
            throw;
        }
    }
    ~Database() { sqlite3_close(db_); }
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    void check(int result) {
        if (result == SQLITE_OK) return;
        throw std::runtime_error(std::string("SQLite: ") + sqlite3_errmsg(db_));
    }
    void run(const char* sql) { check(sqlite3_exec(db_, sql, nullptr, nullptr, nullptr)); }
    sqlite3* get() { return db_; }

private:
    static constexpr const char* kSetUp =
        "PRAGMA journal_mode=WAL;"
        "PRAGMA cache_size=-1048576;"
        "PRAGMA mmap_size=4294967296;";

    sqlite3* db_ = nullptr;
};

class Statement {
public:
    Statement(Database& database, const char* sql) : database_(database) {
        database.check(sqlite3_prepare_v3(database.get(), sql, -1, SQLITE_PREPARE_PERSISTENT,
                                          &statement_, nullptr));
    }
    ~Statement() { sqlite3_finalize(statement_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    template <std::integral Number>
    void bind(int index, Number number) {
        database_.check(sqlite3_bind_int64(statement_, index, number));
    }
    void bind(int index, double number) {
        database_.check(sqlite3_bind_double(statement_, index, number));
    }
    // Texts and objects must live until they are bound anew.
    void bind(int index, std::string_view text) {
        database_.check(sqlite3_bind_text(statement_, index, text.data(),
                                          static_cast<int>(text.size()), SQLITE_STATIC));
    }
    void bindObject(int index, Object object) {
        database_.check(sqlite3_bind_blob(statement_, index, object.data,
                                          static_cast<int>(object.size), SQLITE_STATIC));
    }
    // True while there are rows. A failed step reports through the reset that must follow it.
    bool step() {
        const int result = sqlite3_step(statement_);
        if (result == SQLITE_ROW) return true;
        if (result != SQLITE_DONE) database_.check(result);
        return false;
    }
    void runOnce() {
        step();
        reset();
    }
    void reset() { database_.check(sqlite3_reset(statement_)); }
    int64_t integer(int column) { return sqlite3_column_int64(statement_, column); }
    double real(int column) { return sqlite3_column_double(statement_, column); }
    // Of the first column.
    const void* blob() { return sqlite3_column_blob(statement_, 0); }
    size_t blobSize() { return static_cast<size_t>(sqlite3_column_bytes(statement_, 0)); }

private:
    Database& database_;
    sqlite3_stmt* statement_ = nullptr;
};

}  // namespace bench
