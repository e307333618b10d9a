// Raw LMDB with index keys made by hand, of the layout that Quillmere uses: the same entries, the
// same objects, one cursor for each key range that is read.

#include <flatbuffers/flatbuffers.h>

#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string_view>

#include "query_subject.h"
#include "raw_lmdb.h"

namespace bench {

namespace {

using flatbuffers::String;
using flatbuffers::Table;

// Prefix of the index, value, ID. A number takes 4 bytes or, as an ID of a group, 8; a text its
// bytes with the final zero, and then an ID of 8 bytes.
class IndexKey {
public:
    explicit IndexKey(uint32_t index) { storeBig(bytes_, keyPrefix(kIndexType, index)); }

    void setNumber(uint32_t value) {
        storeBig(bytes_ + 4, value);
        size_ = 8;
    }
    void setLongNumber(uint32_t value) {
        storeBig(bytes_ + 4, 0);
        storeBig(bytes_ + 8, value);
        size_ = 12;
    }
    void setText(std::string_view text) {
        std::memcpy(bytes_ + 4, text.data(), text.size());
        bytes_[4 + text.size()] = 0;
        size_ = 5 + text.size();
    }
    void addShortId(uint32_t id) {
        storeBig(bytes_ + size_, id);
        size_ += 4;
    }
    void addLongId(uint32_t id) {
        storeBig(bytes_ + size_, 0);
        storeBig(bytes_ + size_ + 4, id);
        size_ += 8;
    }

    MDB_val val() { return {size_, bytes_}; }
    bool isStartOf(const MDB_val& key) const {
        return key.mv_size > size_ && std::memcmp(key.mv_data, bytes_, size_) == 0;
    }

private:
    uint8_t bytes_[64];
    size_t size_ = 4;
};

// The low half of an ID: it ends the key, whether it takes 4 or 8 bytes.
uint32_t idAtEndOf(const MDB_val& key) {
    return loadBig(static_cast<const uint8_t*>(key.mv_data) + key.mv_size - 4);
}

bool found(int result) {
    if (result == MDB_NOTFOUND) return false;
    checkLmdb(result);
    return true;
}

template <class Visit>
void forEachEntry(MDB_cursor* cursor, IndexKey& start, Visit&& visit) {
    MDB_val key = start.val(), value;
    bool more = found(mdb_cursor_get(cursor, &key, &value, MDB_SET_RANGE));
    while (more && start.isStartOf(key)) {
        visit(idAtEndOf(key));
        more = found(mdb_cursor_get(cursor, &key, &value, MDB_NEXT));
    }
}

template <class Visit>
void forEachOrder(MDB_cursor* cursor, Visit&& visit) {
    uint8_t prefix[4];
    storeBig(prefix, keyPrefix(kObjectType, kOrderEntity));
    MDB_val key{sizeof prefix, prefix}, value;
    bool more = found(mdb_cursor_get(cursor, &key, &value, MDB_SET_RANGE));
    while (more && std::memcmp(key.mv_data, prefix, sizeof prefix) == 0) {
        visit(flatbuffers::GetRoot<Table>(value.mv_data));
        more = found(mdb_cursor_get(cursor, &key, &value, MDB_NEXT));
    }
}

class Reader {
public:
    explicit Reader(const Environment& environment) : entries_(environment, MDB_RDONLY) {
        checkLmdb(mdb_cursor_open(entries_.txn(), environment.dbi(), &objects_));
    }
    ~Reader() { mdb_cursor_close(objects_); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    uint64_t fetch(uint32_t id) {
        MDB_val value;
        checkLmdb(mdb_cursor_get(objects_, key_.set(id), &value, MDB_SET));
        const auto* order = flatbuffers::GetRoot<Table>(value.mv_data);
        return order->GetField<uint64_t>(flatOffset(kId), 0) +
               static_cast<uint64_t>(order->GetField<int32_t>(flatOffset(kOrderStock), 0));
    }
    MDB_cursor* entries() { return entries_.cursor(); }
    MDB_cursor* objects() { return objects_; }

private:
    LmdbWork entries_;
    MDB_cursor* objects_ = nullptr;
    ObjectKey key_{kOrderEntity};
};

class LmdbQuerySubject : public QuerySubject {
public:
    LmdbQuerySubject(std::string directory, uint64_t maxSizeInKb)
        : directory_(std::move(directory)), maxSizeInKb_(maxSizeInKb) {}
    ~LmdbQuerySubject() override {
        environment_.reset();
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }

    void reset(uint32_t indexes) override {
        environment_.reset();
        std::filesystem::remove_all(directory_);
        environment_ = std::make_unique<Environment>(directory_, maxSizeInKb_);
        indexes_ = indexes;
    }

    void putOrders(Dataset& orders) override {
        LmdbWork work(*environment_, 0);
        ObjectKey key(kOrderEntity);
        for (uint32_t id = 1; id <= orders.count(); ++id) {
            const Object object = orders.object(id);
            if (indexes_ > 0) putEntries(work.cursor(), id, object);
            putObject(work.cursor(), key, id, object);
        }
        work.commit();
    }

    void putGroups(Dataset& groups) override {
        LmdbWork work(*environment_, 0);
        ObjectKey key(kGroupEntity);
        for (uint32_t id = 1; id <= groups.count(); ++id) {
            putObject(work.cursor(), key, id, groups.object(id));
        }
        work.commit();
    }

    std::optional<uint64_t> ask(Question question, const std::vector<uint32_t>& numbers) override {
        Reader reader(*environment_);
        uint64_t sum = 0;
        for (const uint32_t n : numbers) {
            const auto answer = askOnce(reader, question, n);
            if (!answer) return std::nullopt;
            sum += *answer;
        }
        return sum;
    }

private:
    static void putObject(MDB_cursor* cursor, ObjectKey& key, uint32_t id, Object object) {
        MDB_val value{object.size, object.data};
        checkLmdb(mdb_cursor_put(cursor, key.set(id), &value, 0));
    }

    static void putEntry(MDB_cursor* cursor, IndexKey& indexKey) {
        static uint8_t zeros[3] = {};
        MDB_val key = indexKey.val();
        MDB_val value{(4 - key.mv_size % 4) % 4, zeros};
        checkLmdb(mdb_cursor_put(cursor, &key, &value, 0));
    }

    void putEntries(MDB_cursor* cursor, uint32_t id, Object object) const {
        const auto* order = flatbuffers::GetRoot<Table>(object.data);
        IndexKey customer(kCustomerIndex);
        customer.setNumber(
            static_cast<uint32_t>(order->GetField<int32_t>(flatOffset(kCustomer), 0)));
        customer.addShortId(id);
        putEntry(cursor, customer);
        if (indexes_ < 3) return;
        IndexKey code(kCodeIndex);
        code.setText(order->GetPointer<const String*>(flatOffset(kCode))->string_view());
        code.addLongId(id);
        putEntry(cursor, code);
        IndexKey owner(kOwnerIndex);
        owner.setLongNumber(
            static_cast<uint32_t>(order->GetField<uint64_t>(flatOffset(kOwner), 0)));
        owner.addShortId(id);
        putEntry(cursor, owner);
    }

    std::optional<uint64_t> askOnce(Reader& reader, Question question, uint32_t n) {
        IndexKey customer(kCustomerIndex);
        customer.setNumber(n);
        uint64_t sum = 0;
        switch (question) {
            case Question::kByInteger:
                forEachEntry(reader.entries(), customer,
                             [&](uint32_t id) { sum += reader.fetch(id); });
                return sum;
            case Question::kByString: {
                IndexKey code(kCodeIndex);
                code.setText(CodeText(n).c_str());
                forEachEntry(reader.entries(), code,
                             [&](uint32_t id) { sum += reader.fetch(id); });
                return sum;
            }
            case Question::kCountByInteger:
                forEachEntry(reader.entries(), customer, [&](uint32_t) { ++sum; });
                return sum;
            case Question::kIdsByInteger:
                forEachEntry(reader.entries(), customer, [&](uint32_t id) { ids_.push_back(id); });
                for (const uint64_t id : ids_) sum += id;
                ids_.clear();
                return sum;
            case Question::kScan:
                forEachOrder(reader.objects(), [&](const Table* order) {
                    sum += order->GetField<int32_t>(flatOffset(kOrderCategory), 0) <
                               static_cast<int32_t>(n) &&
                           order->GetField<int32_t>(flatOffset(kOrderStock), 0) >= kScanStock;
                });
                return sum;
            case Question::kSum:
                forEachOrder(reader.objects(), [&](const Table* order) {
                    sum += static_cast<uint64_t>(
                        order->GetField<int32_t>(flatOffset(kOrderStock), 0));
                });
                return sum;
            default:
                return std::nullopt;
        }
    }

    const std::string directory_;
    const uint64_t maxSizeInKb_;
    std::unique_ptr<Environment> environment_;
    uint32_t indexes_ = 0;
    std::vector<uint64_t> ids_;
};

}  // namespace

std::unique_ptr<QuerySubject> makeLmdbQuerySubject(const std::string& directory,
                                                   uint64_t maxSizeInKb) {
    return std::make_unique<LmdbQuerySubject>(directory, maxSizeInKb);
}

}  // namespace bench
