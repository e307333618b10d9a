// SQLite with prepared statements: columns for the properties, indexes of its own.

#include <flatbuffers/flatbuffers.h>

#include <cmath>
#include <filesystem>
#include <memory>

#include "query_subject.h"
#include "sqlite_database.h"

namespace bench {

namespace {

using flatbuffers::String;
using flatbuffers::Table;

constexpr const char* kTables =
    "CREATE TABLE groups(id INTEGER PRIMARY KEY, region INTEGER NOT NULL);"
    "CREATE TABLE orders(id INTEGER PRIMARY KEY, customer INTEGER NOT NULL, code TEXT NOT NULL,"
    " owner INTEGER NOT NULL, category INTEGER NOT NULL, price REAL NOT NULL,"
    " stock INTEGER NOT NULL, text TEXT NOT NULL);";
constexpr const char* kIndexes[] = {"CREATE INDEX by_customer ON orders(customer);",
                                    "CREATE INDEX by_code ON orders(code);",
                                    "CREATE INDEX by_owner ON orders(owner);"};
constexpr int kStockColumn = 6;

std::string schemaWith(uint32_t indexes) {
    std::string sql = kTables;
    for (uint32_t i = 0; i < indexes; ++i) sql += kIndexes[i];
    return sql;
}

std::string inSetSql() {
    std::string sql = "SELECT count(*) FROM orders WHERE stock IN (?";
    for (size_t i = 1; i < stockSet(0).size(); ++i) sql += ",?";
    return sql + ")";
}

// An empty database with the statements that run on it.
struct Connection {
    Connection(const std::string& file, uint32_t indexes)
        : database(file, schemaWith(indexes).c_str()) {
        database.run("PRAGMA synchronous=OFF");
    }

    Database database;
    Statement begin{database, "BEGIN"};
    Statement commit{database, "COMMIT"};
    Statement insertGroup{database, "INSERT INTO groups VALUES(?, ?)"};
    Statement insertOrder{database, "INSERT INTO orders VALUES(?, ?, ?, ?, ?, ?, ?, ?)"};
    Statement byCustomer{database, "SELECT * FROM orders WHERE customer = ?"};
    Statement byCode{database, "SELECT * FROM orders WHERE code = ?"};
    Statement countByCustomer{database, "SELECT count(*) FROM orders WHERE customer = ?"};
    Statement idsByCustomer{database, "SELECT id FROM orders WHERE customer = ?"};
    Statement scan{database, "SELECT count(*) FROM orders WHERE category < ? AND stock >= ?"};
    Statement inSet{database, inSetSql().c_str()};
    Statement contains{database, "SELECT count(*) FROM orders WHERE instr(text, ?) > 0"};
    Statement like{database, "SELECT count(*) FROM orders WHERE text LIKE ?"};
    Statement top10{database, "SELECT id FROM orders ORDER BY price DESC LIMIT 10"};
    Statement link{database, "SELECT count(*) FROM groups JOIN orders ON orders.owner = groups.id"
                             " WHERE groups.region = ?"};
    Statement sum{database, "SELECT sum(stock) FROM orders"};
    Statement average{database, "SELECT avg(price) FROM orders"};
    Statement distinct{database, "SELECT count(DISTINCT stock) FROM orders"};
};

// Runs a statement that is bound: the sum of a column over all rows.
uint64_t sumOfColumn(Statement& statement, int column) {
    uint64_t sum = 0;
    while (statement.step()) sum += static_cast<uint64_t>(statement.integer(column));
    statement.reset();
    return sum;
}

uint64_t sumOfFound(Statement& statement) {
    uint64_t sum = 0;
    while (statement.step()) {
        sum += static_cast<uint64_t>(statement.integer(0) + statement.integer(kStockColumn));
    }
    statement.reset();
    return sum;
}

class SqliteQuerySubject : public QuerySubject {
public:
    explicit SqliteQuerySubject(std::string directory) : directory_(std::move(directory)) {}
    ~SqliteQuerySubject() override {
        connection_.reset();
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }

    void reset(uint32_t indexes) override {
        connection_.reset();
        std::filesystem::remove_all(directory_);
        std::filesystem::create_directories(directory_);
        connection_ = std::make_unique<Connection>(directory_ + "/data.sqlite", indexes);
    }

    void putOrders(Dataset& orders) override {
        Connection& s = *connection_;
        s.begin.runOnce();
        for (uint32_t id = 1; id <= orders.count(); ++id) {
            const auto* order = flatbuffers::GetRoot<Table>(orders.object(id).data);
            Statement& insert = s.insertOrder;
            insert.bind(1, id);
            insert.bind(2, order->GetField<int32_t>(flatOffset(kCustomer), 0));
            insert.bind(3, order->GetPointer<const String*>(flatOffset(kCode))->string_view());
            insert.bind(4, order->GetField<uint64_t>(flatOffset(kOwner), 0));
            insert.bind(5, order->GetField<int32_t>(flatOffset(kOrderCategory), 0));
            insert.bind(6, order->GetField<double>(flatOffset(kOrderPrice), 0));
            insert.bind(7, order->GetField<int32_t>(flatOffset(kOrderStock), 0));
            insert.bind(8, order->GetPointer<const String*>(flatOffset(kText))->string_view());
            insert.runOnce();
        }
        s.commit.runOnce();
    }

    void putGroups(Dataset& groups) override {
        Connection& s = *connection_;
        s.begin.runOnce();
        for (uint32_t id = 1; id <= groups.count(); ++id) {
            const auto* group = flatbuffers::GetRoot<Table>(groups.object(id).data);
            s.insertGroup.bind(1, id);
            s.insertGroup.bind(2, group->GetField<int32_t>(flatOffset(kRegion), 0));
            s.insertGroup.runOnce();
        }
        s.commit.runOnce();
    }

    std::optional<uint64_t> ask(Question question, const std::vector<uint32_t>& numbers) override {
        Connection& s = *connection_;
        uint64_t sum = 0;
        s.begin.runOnce();
        for (const uint32_t n : numbers) sum += askOnce(s, question, n);
        s.commit.runOnce();
        return sum;
    }

private:
    static uint64_t askOnce(Connection& s, Question question, uint32_t n) {
        switch (question) {
            case Question::kByInteger: s.byCustomer.bind(1, n); return sumOfFound(s.byCustomer);
            case Question::kByString: {
                const CodeText code(n);
                s.byCode.bind(1, std::string_view(code.c_str()));
                return sumOfFound(s.byCode);
            }
            case Question::kCountByInteger:
                s.countByCustomer.bind(1, n);
                return sumOfColumn(s.countByCustomer, 0);
            case Question::kIdsByInteger:
                s.idsByCustomer.bind(1, n);
                return sumOfColumn(s.idsByCustomer, 0);
            case Question::kScan:
                s.scan.bind(1, n);
                s.scan.bind(2, kScanStock);
                return sumOfColumn(s.scan, 0);
            case Question::kInSet: {
                int index = 0;
                for (const int32_t stock : stockSet(n)) s.inSet.bind(++index, stock);
                return sumOfColumn(s.inSet, 0);
            }
            case Question::kContains: {
                const std::string text = needle(n);
                s.contains.bind(1, std::string_view(text));
                return sumOfColumn(s.contains, 0);
            }
            case Question::kContainsAnyCase: {
                std::string pattern = "%";
                pattern.append(needleInCapitals(n)).append("%");
                s.like.bind(1, std::string_view(pattern));
                return sumOfColumn(s.like, 0);
            }
            case Question::kTop10: return sumOfColumn(s.top10, 0);
            case Question::kLink: s.link.bind(1, n); return sumOfColumn(s.link, 0);
            case Question::kSum: return sumOfColumn(s.sum, 0);
            case Question::kDistinct: return sumOfColumn(s.distinct, 0);
            case Question::kAverage: break;
        }
        s.average.step();
        const double average = s.average.real(0);
        s.average.reset();
        return static_cast<uint64_t>(std::llround(average * 1000));
    }

    const std::string directory_;
    std::unique_ptr<Connection> connection_;
};

}  // namespace

std::unique_ptr<QuerySubject> makeSqliteQuerySubject(const std::string& directory) {
    return std::make_unique<SqliteQuerySubject>(directory);
}

}  // namespace bench
