// Quillmere through its C interface, one cursor per transaction.

#include <quillmere/quillmere.h>

#include <filesystem>

#include "dataset.h"
#include "measure.h"
#include "quillmere_work.h"
#include "subject.h"

namespace bench {

namespace {

constexpr qmr_schema_id kEntity = 1;

void addProperty(QMR_model* model, const char* name, QMRPropertyType type, PropertyId id) {
    check(qmr_model_property(model, name, type, id, 100 + id));
}

QMR_model* makeModel() {
    QMR_model* model = check(qmr_model());
    check(qmr_model_entity(model, "Object", kEntity, 1));
    addProperty(model, "id", QMRPropertyType_Long, kId);
    check(qmr_model_property_flags(model, QMRPropertyFlags_ID));
    addProperty(model, "name", QMRPropertyType_String, kName);
    addProperty(model, "category", QMRPropertyType_Int, kCategory);
    addProperty(model, "created", QMRPropertyType_Date, kCreated);
    addProperty(model, "price", QMRPropertyType_Double, kPrice);
    addProperty(model, "stock", QMRPropertyType_Int, kStock);
    addProperty(model, "remark", QMRPropertyType_String, kRemark);
    check(qmr_model_entity_last_property_id(model, kRemark, 100 + kRemark));
    qmr_model_last_entity_id(model, kEntity, 1);
    return model;
}

class QuillmereSubject : public Subject {
public:
    QuillmereSubject(std::string directory, uint64_t maxSizeInKb)
        : directory_(std::move(directory)), maxSizeInKb_(maxSizeInKb) {}
    ~QuillmereSubject() override { removeAllFiles(); }

    std::string name() const override { return "Quillmere"; }
    bool drawsIds() const override { return true; }

    // Every commit is durable; there is no other mode.
    void reset(bool) override {
        removeAllFiles();
        store_ = openStore(directory_, makeModel(), maxSizeInKb_);
    }

    void put(Dataset& data, uint32_t count, uint32_t batchSize) override {
        for (uint32_t id = 1; id <= count;) {
            QuillmereWork work(store_, kEntity, true);
            for (uint32_t i = 0; i < batchSize && id <= count; ++i, ++id) {
                const Object object = data.object(id);
                if (qmr_cursor_put_object(work.cursor(), object.data, object.size) != id) fail();
            }
            work.commit();
        }
    }

    uint64_t getAll(Dataset& data) override {
        QuillmereWork work(store_, kEntity, false);
        const void* bytes;
        size_t size;
        uint64_t sum = 0;
        for (const uint32_t id : data.randomOrder()) {
            check(qmr_cursor_get(work.cursor(), id, &bytes, &size));
            sum += sumOfWords(bytes, size);
        }
        return sum;
    }

    uint64_t walk() override {
        QuillmereWork work(store_, kEntity, false);
        const void* bytes;
        size_t size;
        uint64_t sum = 0;
        qmr_err result = qmr_cursor_first(work.cursor(), &bytes, &size);
        for (; result == 0; result = qmr_cursor_next(work.cursor(), &bytes, &size)) {
            sum += sumOfTwoFields(bytes);
        }
        if (result != QMR_NOT_FOUND) fail();
        return sum;
    }

    void updateAll(Dataset& data) override {
        QuillmereWork work(store_, kEntity, true);
        for (const uint32_t id : data.randomOrder()) {
            const Object object = data.object(id);
            check(qmr_cursor_update(work.cursor(), id, object.data, object.size));
        }
        work.commit();
    }

    void removeAll(Dataset& data) override {
        QuillmereWork work(store_, kEntity, true);
        for (const uint32_t id : data.randomOrder()) check(qmr_cursor_remove(work.cursor(), id));
        work.commit();
    }

    uint64_t sizeOnDisk() override { return qmr_store_size_on_disk(store_); }

private:
    void removeAllFiles() {
        qmr_store_close(store_);
        store_ = nullptr;
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }

    const std::string directory_;
    const uint64_t maxSizeInKb_;
    QMR_store* store_ = nullptr;
};

}  // namespace

std::unique_ptr<Subject> makeQuillmereSubject(const std::string& directory, uint64_t maxSizeInKb) {
    return std::make_unique<QuillmereSubject>(directory, maxSizeInKb);
}

AllocationCounts countQuillmereAllocations(const std::string& directory, Dataset& data) {
    AllocationCounts counts;
    QMR_store* store = openStore(directory, makeModel(), 1024 * 1024);
    const uint32_t warm = data.count() - kAllocationSample;
    {
        QuillmereWork work(store, kEntity, true);
        const auto insert = [&](uint32_t id) {
            const Object object = data.object(id);
            if (qmr_cursor_put_object(work.cursor(), object.data, object.size) != id) fail();
        };
        const auto update = [&](uint32_t id) {
            const Object object = data.object(id);
            check(qmr_cursor_update(work.cursor(), id, object.data, object.size));
        };
        for (uint32_t id = 1; id <= warm; ++id) insert(id);
        counts.insert = allocationsOf(warm + 1, data.count(), insert);
        counts.update = allocationsOf(warm + 1, data.count(), update);
        work.commit();
    }
    {
        QuillmereWork work(store, kEntity, false);
        const void* bytes;
        size_t size;
        const auto get = [&](uint32_t id) {
            check(qmr_cursor_get(work.cursor(), id, &bytes, &size));
        };
        const auto step = [&](uint32_t) { check(qmr_cursor_next(work.cursor(), &bytes, &size)); };
        for (uint32_t id = 1; id <= warm; ++id) get(id);
        counts.get = allocationsOf(warm + 1, data.count(), get);
        check(qmr_cursor_first(work.cursor(), &bytes, &size));
        counts.step = allocationsOf(2, warm, step);
    }
    check(qmr_store_close(store));
    return counts;
}

void openEmptyQuillmere(const std::string& directory, void (*opened)()) {
    QMR_store* store = openStore(directory, makeModel(), 1024 * 1024);
    opened();
    check(qmr_store_close(store));
}

}  // namespace bench
