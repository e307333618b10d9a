// SQLite with prepared statements: one table of an integer primary key and a blob.

#include <filesystem>
#include <stdexcept>

#include "dataset.h"
#include "sqlite_database.h"
#include "subject.h"

namespace bench {

namespace {

constexpr const char* kTables =
    "CREATE TABLE object(id INTEGER PRIMARY KEY, data BLOB NOT NULL)";

// An empty database with the statements that run on it.
struct Connection {
    explicit Connection(const std::string& file) : database(file, kTables) {}

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
                s.insert.bind(1, id);
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
            s.select.bind(1, id);
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
            s.update.bind(2, id);
            s.update.runOnce();
        }
        s.commit.runOnce();
    }

    void removeAll(Dataset& data) override {
        Connection& s = *connection_;
        s.begin.runOnce();
        for (const uint32_t id : data.randomOrder()) {
            s.remove.bind(1, id);
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
