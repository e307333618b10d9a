// SQLite with prepared statements: one table of an integer primary key and a blob, write-ahead log,
// a page cache and memory map that hold the whole database.

#include <sqlite3.h>

#include <filesystem>
#include <stdexcept>

#include "dataset.h"
#include "subject.h"

namespace bench {

namespace {

constexpr const char* kSetUp =
    "PRAGMA journal_mode=WAL;"
    "PRAGMA cache_size=-1048576;"
    "PRAGMA mmap_size=4294967296;"
    "CREATE TABLE object(id INTEGER PRIMARY KEY, data BLOB NOT NULL)";

class Database {
public:
    explicit Database(const std::string& file) {
        const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
        try {
            check(sqlite3_open_v2(file.c_str(), &db_, flags, nullptr));
            run(kSetUp);
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

    void bindId(int index, uint32_t id) {
        database_.check(sqlite3_bind_int64(statement_, index, id));
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
    const void* blob() { return sqlite3_column_blob(statement_, 0); }
    size_t blobSize() { return static_cast<size_t>(sqlite3_column_bytes(statement_, 0)); }

private:
    Database& database_;
    sqlite3_stmt* statement_ = nullptr;
};

// An empty database with the statements that run on it.
struct Connection {
    explicit Connection(const std::string& file) : database(file) {}

    Database database;
    Statement begin{database, "BEGIN"};
    Statement commit{database, "COMMIT"};
    Statement insert{database, "INSERT INTO object(id, data) VALUES(?, ?)"};
    Statement select{database, "SELECT data FROM object WHERE id = ?"};
    Statement scan{database, "SELECT data FROM object ORDER BY id"};
    Statement update{database, "UPDATE object SET data = ? WHERE id = ?"};
    Statement remove{database, "DELETE FROM object WHERE id = ?"};
};

class SqliteSubject : public Subject {
public:
    explicit SqliteSubject(std::string directory) : directory_(std::move(directory)) {}
    ~SqliteSubject() override {
        connection_.reset();
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }

    std::string name() const override { return "SQLite"; }

    void reset(bool durable) override {
        connection_.reset();
        std::filesystem::remove_all(directory_);
        std::filesystem::create_directories(directory_);
        connection_ = std::make_unique<Connection>(directory_ + "/data.sqlite");
        connection_->database.run(durable ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=OFF");
    }

    void put(Dataset& data, uint32_t count, uint32_t batchSize) override {
        Connection& s = *connection_;
        for (uint32_t id = 1; id <= count;) {
            s.begin.runOnce();
            for (uint32_t i = 0; i < batchSize && id <= count; ++i, ++id) {
                s.insert.bindId(1, id);
                s.insert.bindObject(2, data.object(id));
                s.insert.runOnce();
            }
            s.commit.runOnce();
        }
    }

    uint64_t getAll(Dataset& data) override {
        Connection& s = *connection_;
        uint64_t sum = 0;
        s.begin.runOnce();
        for (const uint32_t id : data.randomOrder()) {
            s.select.bindId(1, id);
            if (!s.select.step()) throw std::runtime_error("SQLite: object not found");
            const void* blob = s.select.blob();
            sum += sumOfWords(blob, s.select.blobSize());
            s.select.reset();
        }
        s.commit.runOnce();
        return sum;
    }

    uint64_t walk() override {
        Connection& s = *connection_;
        uint64_t sum = 0;
        s.begin.runOnce();
        while (s.scan.step()) sum += sumOfTwoFields(s.scan.blob());
        s.scan.reset();
        s.commit.runOnce();
        return sum;
    }

    void updateAll(Dataset& data) override {
        Connection& s = *connection_;
        s.begin.runOnce();
        for (const uint32_t id : data.randomOrder()) {
            s.update.bindObject(1, data.object(id));
            s.update.bindId(2, id);
            s.update.runOnce();
        }
        s.commit.runOnce();
    }

    void removeAll(Dataset& data) override {
        Connection& s = *connection_;
        s.begin.runOnce();
        for (const uint32_t id : data.randomOrder()) {
            s.remove.bindId(1, id);
            s.remove.runOnce();
        }
        s.commit.runOnce();
    }

    uint64_t sizeOnDisk() override {
        uint64_t size = 0;
        for (const auto& entry : std::filesystem::directory_iterator(directory_)) {
            size += entry.file_size();
        }
        return size;
    }

private:
    const std::string directory_;
    std::unique_ptr<Connection> connection_;
};

}  // namespace

std::unique_ptr<Subject> makeSqliteSubject(const std::string& directory) {
    return std::make_unique<SqliteSubject>(directory);
}

}  // namespace bench
