// The same random operations on stores of all providers give the same results.

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "core/error.h"
#include "kv/db_provider.h"
#include "kv/db_registry.h"
#include "kv/partition_cursor.h"
#include "kv_fixture.h"
#include "support/seed.h"

namespace quillmere {
namespace {

constexpr size_t kCursors = 3;

std::string textOf(bool found) { return found ? "yes" : "no"; }

// One provider's side of the comparison.
class Side {
public:
    explicit Side(const std::string& prefix) : prefix_(prefix) {
        options_.directory = prefix + dir_.path();
        options_.noReaderThreadLocals = true;
        options_.maxDbSizeInKb = 16 * 1024;
        options_.walMaxFileSizeInKb = 4;  // snapshots in between
        reopen();
    }
    void reopen() {
        end(false);
        store_.reset();
        store_ = DbRegistry::instance().get(options_.directory)->createStore(options_);
        begin();
    }
    void begin() {
        tx_ = std::make_unique<TestTx>(*store_);
        cursors_.resize(kCursors);
        for (Slot& slot : cursors_) {
            slot.cursor = tx_->dbTransaction().createDbCursor();
            slot.cursor->seek(asked(slot, "seed"));
        }
    }
    void end(bool commits) {
        if (tx_ && commits) tx_->commit();
        cursors_.clear();
        tx_.reset();
    }

    struct Slot {
        std::shared_ptr<DbCursor> cursor;
        std::string key;  // holds what the cursor views
    };
    Slot& slot(size_t i) { return cursors_[i]; }
    TestTx& tx() { return *tx_; }
    const std::string& prefix() const { return prefix_; }
    static Bytes asked(Slot& slot, std::string key) {
        slot.key = std::move(key);
        return bytesOf(slot.key);
    }

private:
    TempDir dir_;
    const std::string prefix_;
    StoreOptions options_;
    std::unique_ptr<DbStore> store_;
    std::unique_ptr<TestTx> tx_;
    std::vector<Slot> cursors_;
};

class ProviderDifferentialTest : public testing::Test {
protected:
    // Runs the operation on all sides; they must agree on the text that it gives.
    void agree(const std::function<std::string(Side&)>& operation) {
        const std::string expected = operation(sides_[0]);
        for (size_t i = 1; i < sides_.size(); ++i) {
            ASSERT_EQ(operation(sides_[i]), expected) << sides_[i].prefix();
        }
    }
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_() % limit); }
    // Few enough to meet, of all lengths, with prefixes of each other.
    std::string anyKey() {
        std::string key(4 * (1 + below(6)), 'k');
        for (size_t i = 0; i < 8; i += 4) key[std::min(i + 3, key.size() - 1)] = 'a' + below(4);
        return key;
    }
    std::string anyValue() { return std::string(4 * below(12), 'a' + below(26)); }

    void moveOrWrite() {
        const size_t i = below(kCursors);
        const uint32_t operation = below(15);
        const std::string key = anyKey(), value = anyValue();
        agree([&](Side& side) {
            Side::Slot& slot = side.slot(i);
            std::string result = run(*slot.cursor, slot, operation, key, value);
            // As a PartitionCursor does: the provider's memory dies with the next write.
            const Bytes current = slot.cursor->key();
            slot.key = current.text();
            slot.cursor->rebindKey(slot.key.data(), slot.key.size());
            return result + " at " + slot.key;
        });
    }

    static std::string run(DbCursor& cursor, Side::Slot& slot, uint32_t operation,
                           const std::string& key, const std::string& value) {
        Bytes outKey, outValue;
        size_t size = 0;
        bool flag = false;
        const auto told = [&](bool found) {
            return textOf(found) + (found ? " " + std::string(outValue.text()) : "");
        };
        switch (operation) {
            case 0: return textOf(cursor.seek(Side::asked(slot, key)));
            case 1: return told(cursor.get(Side::asked(slot, key), outValue));
            case 2: return told(cursor.getOrNext(Side::asked(slot, key), outValue));
            case 3: return told(cursor.getOrPrevious(Side::asked(slot, key), outValue));
            case 4: return told(cursor.first(outKey, outValue));
            case 5:
            case 6: return told(cursor.next(outKey, outValue));
            case 7:
            case 8: return told(cursor.previous(outKey, outValue));
            case 9: return told(cursor.currentValue(outValue));
            case 10: return textOf(cursor.currentValueSize(size)) + std::to_string(size);
            case 11: cursor.setKey(Side::asked(slot, key)); return "set";
            case 12: {
                const bool removed = cursor.removeCurrent(flag);
                return textOf(removed) + textOf(flag);
            }
            default:
                cursor.put(Side::asked(slot, key).data(), key.size(), value.data(), value.size());
                return "put";
        }
    }

    void commitOrAbort() {
        const bool commits = below(3) != 0;
        const bool reopens = below(3) == 0;
        for (Side& side : sides_) {
            side.end(commits);
            reopens ? side.reopen() : side.begin();
        }
    }

    std::mt19937 random_{testSeed()};
    std::array<Side, 3> sides_{Side(""), Side("memory:"), Side("memory-wal:")};
};

TEST_F(ProviderDifferentialTest, CursorsAgree) {
    for (int i = 0; i < 12000; ++i) {
        ASSERT_NO_FATAL_FAILURE(moveOrWrite()) << "step " << i;
        if (below(150) == 0) commitOrAbort();
    }
}

// Three neighbouring partitions; cursors walk each of them and meet their edges.
TEST_F(ProviderDifferentialTest, PartitionCursorsAgreeAlsoAtTheEdges) {
    using Cursors = std::vector<std::unique_ptr<PartitionCursor>>;
    const auto prefixOf = [](size_t i) { return 0x18000004 + 4 * static_cast<uint32_t>(i); };
    for (int round = 0; round < 60; ++round) {
        std::map<Side*, Cursors> cursors;
        for (Side& side : sides_) {
            for (size_t i = 0; i < 4; ++i) {
                const uint32_t prefix = prefixOf(i % 3);
                cursors[&side].push_back(std::make_unique<PartitionCursor>(
                    side.tx(), PartitionCursor::Config{.firstPrefix = prefix,
                                                       .lastPrefix = prefix + 1,
                                                       .dataPadding = 4}));
                cursors[&side].back()->seek("none", 4);
            }
        }
        for (int i = 0; i < 120; ++i) {
            const size_t which = below(4);
            const uint32_t operation = below(14);
            const uint32_t id = below(6);
            const std::string value(1 + below(9), 'a' + below(26));
            ASSERT_NO_FATAL_FAILURE(agree([&](Side& side) {
                PartitionCursor& cursor = *cursors[&side][which];
                const std::string key =
                    keyOf(prefixOf(which % 3) + id % 2, id);  // both sub partitions
                Bytes out;
                std::string result;
                const auto told = [&](bool found) { result = textOf(found); };
                switch (operation) {
                    case 0: told(cursor.first(out)); break;
                    case 1:
                    case 2: told(cursor.next(out)); break;
                    case 3:
                    case 4: told(cursor.previous(out)); break;
                    case 5: told(cursor.get(key.data(), key.size(), out)); break;
                    case 6: told(cursor.getOrNext(key.data(), key.size(), out)); break;
                    case 7: told(cursor.getOrPrevious(key.data(), key.size(), out)); break;
                    case 8: told(cursor.currentValue(out)); break;
                    case 9:
                        if (cursor.position() == PartitionCursor::Position::On) {
                            told(cursor.removeCurrent());
                        }
                        break;
                    case 10:
                        result = std::to_string(id == 0 ? cursor.removeAll() : cursor.count(id));
                        break;
                    default: cursor.put(bytesOf(key), bytesOf(value));
                }
                result.append(" ").append(out.text()).append(" at ");
                result += std::to_string(static_cast<int>(cursor.position())) + " ";
                return result + cursor.key().toHex(20);
            })) << "round " << round << ", step " << i << ", operation " << operation;
        }
        cursors.clear();
        commitOrAbort();
    }
}

}  // namespace
}  // namespace quillmere
