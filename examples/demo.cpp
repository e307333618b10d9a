// A small application from an empty folder to a changed data model. It stores the time zones,
// countries and characters that every Debian system knows, and does with them what applications do:
// read, walk, update, remove, undo, observe, come back with a newer model, and ask questions.
//
// Read on from here: object.h for how objects become bytes, demo_model.h for the entities,
// demo_queries.cpp for the questions.

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <string_view>

#include "demo_input.h"
#include "demo_model.h"
#include "demo_objects.h"
#include "demo_queries.h"
#include "demo_tell.h"
#include "handles.h"
#include "object.h"

namespace {

constexpr const char* kCountryFile = "/usr/share/zoneinfo/iso3166.tab";
constexpr const char* kZoneFile = "/usr/share/zoneinfo/zone1970.tab";
constexpr const char* kCharacterFile = "/usr/share/unicode/UnicodeData.txt";

// ---- The store

// A directory may start with where the data lives: "memory:NAME" leaves nothing behind,
// "memory-wal:FOLDER" logs what it commits to a folder.
constexpr std::string_view kMemory = "memory:";
constexpr std::string_view kMemoryWithLog = "memory-wal:";

std::string folderOf(const std::string& directory) {
    return directory.substr(directory.starts_with(kMemoryWithLog) ? kMemoryWithLog.size() : 0);
}

// Starts with an empty folder. A folder that this program did not make is never touched.
void prepareDirectory(const std::string& directory) {
    if (directory.starts_with(kMemory)) return;
    const std::string folder = folderOf(directory);
    const std::string marker = folder + "/made-by-the-quillmere-demo";
    if (std::filesystem::exists(folder) && !std::filesystem::is_empty(folder)) {
        if (!std::filesystem::exists(marker)) {
            throw std::runtime_error(folder + " exists and is not of this program's making; " +
                                     "please name another folder: demo FOLDER");
        }
        check(qmr_remove_db_files(directory.c_str()), "remove the files of the last run");
    }
    std::filesystem::create_directories(folder);
    if (!std::ofstream(marker)) throw std::runtime_error("Cannot write to " + folder);
}

// Opening brings the model of the stored data up to the given one.
Store openStore(const std::string& directory, QMR_model* model) {
    QMR_store_options* options = check(qmr_opt(), "make options");
    check(qmr_opt_directory(options, directory.c_str()), "set the directory");
    check(qmr_opt_model(options, model), "set the model");
    return Store(check(qmr_store_open(options), "open the store"));
}

// Closing by hand tells of a failure, unlike a destructor.
void close(Store store) { check(qmr_store_close(store.release()), "close the store"); }

uint64_t countObjects(const Store& store, EntityId entity) {
    uint64_t count = 0;
    QMR_kist* kist = check(qmr_kist(store.get(), entity), "find the entity");
    check(qmr_kist_count(kist, 0, &count), "count objects");
    return count;
}

// ---- Observing

// Called on the committing thread, after the commit, with the entities it changed.
class CommitCounter {
public:
    explicit CommitCounter(const Store& store)
        : observer_(check(qmr_observe(store.get(), &onCommit, this), "observe the store")) {}

    void tell() const {
        std::printf("   observed %zu commits", commits_);
        for (const auto& [entity, count] : changes_) {
            std::printf(", %s in %zu", nameOf(entity), count);
        }
        std::printf("\n");
    }
    size_t commits() const { return commits_; }

private:
    static void onCommit(void* self, const qmr_schema_id* entities, size_t count) {
        auto* counter = static_cast<CommitCounter*>(self);
        ++counter->commits_;
        for (size_t i = 0; i < count; ++i) ++counter->changes_[entities[i]];
    }

    size_t commits_ = 0;
    std::map<qmr_schema_id, size_t> changes_;
    const Observer observer_;  // must be closed before the store
};

// ---- The chapters

int64_t nowInMillis() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

template <class T>
void putAll(const Txn& txn, EntityId entity, const std::vector<T>& objects) {
    const Cursor cursor = openCursor(txn, entity);
    ObjectWriter writer;
    for (const T& object : objects) put(cursor.get(), writer, object);
}

// Everything in one transaction: all of it is stored, or nothing.
void importZones(const Store& store) {
    const auto countries = readCountryTable(kCountryFile);
    const auto zones = readZoneTable(kZoneFile);
    const std::vector<ImportNote> notes = {
        {0, kCountryFile, static_cast<int32_t>(countries.size()), nowInMillis()},
        {0, kZoneFile, static_cast<int32_t>(zones.size()), nowInMillis()},
    };
    const StopWatch watch;
    Txn txn = beginWrite(store);
    putAll(txn, kCountry, countries);
    putAll(txn, kZone, zones);
    putAll(txn, kImportNote, notes);
    commit(std::move(txn));
    tellRate(countries.size() + zones.size() + notes.size(),
             "countries, zones and notes in one transaction", watch);
}

// A transaction for every thousand: when the program is killed, what was committed stays. Returns
// the characters with their IDs.
std::vector<Character> importCharacters(const Store& store) {
    auto characters = readCharacterTable(kCharacterFile);
    constexpr size_t kBatch = 1000;
    ObjectWriter writer;
    const StopWatch watch;
    for (size_t done = 0; done < characters.size();) {
        const size_t end = std::min(done + kBatch, characters.size());
        Txn txn = beginWrite(store);
        {
            const Cursor cursor = openCursor(txn, kCharacter);
            for (; done < end; ++done) {
                characters[done].id = put(cursor.get(), writer, characters[done]);
            }
        }
        commit(std::move(txn));
        tellProgress(done, characters.size(), "characters");
    }
    tellRate(characters.size(), "characters, a commit for each thousand", watch);
    return characters;
}

void readBack(const Store& store, const std::vector<Character>& characters) {
    const Txn txn = beginRead(store);
    const Cursor cursor = openCursor(txn, kCharacter);
    const void* data;
    size_t size;

    StopWatch gets;
    for (const Character& character : characters) {
        check(qmr_cursor_get(cursor.get(), character.id, &data, &size), "get a character");
        const Character stored = readCharacter(data);
        expect(stored.name == character.name && stored.codePoint == character.codePoint,
               "a character differs from the one that was put");
    }
    tellRate(characters.size(), "characters read by ID and compared", gets);

    std::map<std::string, size_t> byCategory;
    size_t nameLength = 0;
    StopWatch walk;
    forEachObject(cursor.get(), [&](const void* object) {
        const ObjectReader reader(object);
        nameLength += reader.text(Character::kName).size();
        ++byCategory[std::string(reader.text(Character::kCategory))];
    });
    tellRate(characters.size(), "characters walked, two properties each", walk);
    std::printf("   %zu categories, Lo %zu, So %zu, Lu %zu; a name has %.1f letters on average\n",
                byCategory.size(), byCategory["Lo"], byCategory["So"], byCategory["Lu"],
                static_cast<double>(nameLength) / static_cast<double>(characters.size()));
}

void findNorthernmostZone(const Store& store) {
    Zone best;
    best.latitude = -90;
    // A visitor sees each object until it returns false. No transaction needed around it.
    const auto visitor = [](const void* data, size_t, void* userData) {
        auto* northernmost = static_cast<Zone*>(userData);
        if (ObjectReader(data).number<double>(Zone::kLatitude) > northernmost->latitude) {
            *northernmost = readZone(data);
        }
        return true;
    };
    QMR_kist* zones = check(qmr_kist(store.get(), kZone), "find zones");
    check(qmr_kist_visit_all(zones, visitor, &best), "visit zones");
    std::printf("   northernmost zone: %s at %.2f degrees, shared by", best.name.c_str(),
                best.latitude);
    for (const std::string& code : best.countries) std::printf(" %s", code.c_str());
    std::printf("\n");
}

// Control characters are all named "<control>"; give them the name they had in Unicode 1.
void updateControls(const Store& store, std::vector<Character>& characters) {
    size_t updated = 0;
    ObjectWriter writer;
    const StopWatch watch;
    Txn txn = beginWrite(store);
    {
        const Cursor cursor = openCursor(txn, kCharacter);
        for (Character& character : characters) {
            if (character.name != "<control>" || character.formerName.empty()) continue;
            character.name = character.formerName;
            const auto [data, size] = write(writer, character);
            check(qmr_cursor_update(cursor.get(), character.id, data, size), "update a character");
            ++updated;
        }
    }
    commit(std::move(txn));
    tellRate(updated, "control characters updated in one transaction", watch);
}

// Ranges stand in the table as two rows, "<..., First>" and "<..., Last>", that are no characters.
void removeRanges(const Store& store, std::vector<Character>& characters) {
    const auto isRange = [](const Character& character) {
        return character.name.ends_with(", First>") || character.name.ends_with(", Last>");
    };
    size_t removed = 0;
    const StopWatch watch;
    Txn txn = beginWrite(store);
    {
        const Cursor cursor = openCursor(txn, kCharacter);
        for (const Character& character : characters) {
            if (!isRange(character)) continue;
            check(qmr_cursor_remove(cursor.get(), character.id), "remove a range");
            ++removed;
        }
    }
    commit(std::move(txn));
    tellRate(removed, "range rows removed in one transaction", watch);
    std::erase_if(characters, isRange);
    expect(countObjects(store, kCharacter) == characters.size(), "the number of characters");
}

// Closing a write transaction without success undoes it.
void removeAllAndThinkAgain(const Store& store) {
    const uint64_t before = countObjects(store, kCharacter);
    {
        const Txn txn = beginWrite(store);
        const Cursor cursor = openCursor(txn, kCharacter);
        check(qmr_cursor_remove_all(cursor.get()), "remove all characters");
        uint64_t inside = 1;
        check(qmr_cursor_count(cursor.get(), &inside), "count characters");
        expect(inside == 0, "characters after removing all");
    }
    expect(countObjects(store, kCharacter) == before, "characters after undoing");
    std::printf("   removed all characters and undid it: %" PRIu64 " are there\n", before);
}

// Failures have a code and a message, and cost nothing but the call.
void showFailures(const Store& store, const Character& character) {
    QMR_kist* kist = check(qmr_kist(store.get(), kCharacter), "find characters");
    ObjectWriter writer;
    const auto [data, size] = write(writer, character);
    expect(qmr_kist_insert(kist, character.id, data, size) == QMR_ERROR_ID_ALREADY_EXISTS,
           "an insert over an object");
    std::printf("   insert over an object: %s\n", qmr_last_error_message());
    expect(qmr_store_entity_id(store.get(), "Planet") == 0, "an entity that nobody made");
    std::printf("   unknown entity: %s\n", qmr_last_error_message());
}

// The second model has another name for one property, more properties, and an entity less.
void checkChangedModel(const Store& store, const std::vector<Character>& characters) {
    const auto property = [&](const char* name) {
        return qmr_store_entity_property_id(store.get(), kCharacter, name);
    };
    expect(property("category") == 0, "the old name of a property");
    expect(property("generalCategory") == Character::kCategory, "the new name of a property");
    expect(qmr_store_entity_id(store.get(), "ImportNote") == 0, "a removed entity");
    std::printf("   Character.category is now generalCategory; %s\n", qmr_last_error_message());

    const Txn txn = beginRead(store);
    const Cursor cursor = openCursor(txn, kCharacter);
    size_t i = 0;
    forEachObject(cursor.get(), [&](const void* data) {
        const Character stored = readCharacter(data);
        expect(i < characters.size() && stored.name == characters[i].name &&
                   stored.category == characters[i].category,
               "a character changed with the model");
        ++i;
    });
    expect(i == characters.size(), "the number of characters after the change of the model");
    std::printf("   all %zu characters are as they were\n", i);
}

// Objects of before have no value for a new property: it reads as null.
void fillZoneCounts(const Store& store) {
    std::map<std::string, int32_t> zonesOf;
    std::vector<Country> countries;
    Txn txn = beginWrite(store);
    forEachObject(openCursor(txn, kZone).get(), [&](const void* data) {
        for (const std::string& code : readZone(data).countries) ++zonesOf[code];
    });
    forEachObject(openCursor(txn, kCountry).get(), [&](const void* data) {
        countries.push_back(readCountry(data));
        expect(countries.back().zoneCount == -1, "a zone count that nobody stored");
        countries.back().zoneCount = zonesOf[countries.back().code];
    });
    putAll(txn, kCountry, countries);  // with their IDs, so in place of the old ones
    commit(std::move(txn));
    const auto most = std::ranges::max_element(countries, {}, &Country::zoneCount);
    std::printf("   %zu countries have their new zoneCount; most zones: %s, %d\n",
                countries.size(), most->name.c_str(), most->zoneCount);
}

void tellSize(const Store& store) {
    const uint64_t onDisk = qmr_store_size_on_disk(store.get());
    std::printf("   %" PRIu64 " countries, %" PRIu64 " zones, %" PRIu64 " characters; "
                "%.1f MiB on disk\n",
                countObjects(store, kCountry), countObjects(store, kZone),
                countObjects(store, kCharacter), static_cast<double>(onDisk) / (1 << 20));
}

void runDemo(const std::string& directory) {
    std::printf("Quillmere %s\n", qmr_version_core_string());
    prepareDirectory(directory);
    std::vector<Character> characters;

    std::printf("1. A new store in %s\n", directory.c_str());
    Store store = openStore(directory, makeFirstModel());
    {
        const CommitCounter counter(store);
        importZones(store);
        characters = importCharacters(store);
        counter.tell();

        std::printf("2. Reading\n");
        readBack(store, characters);
        findNorthernmostZone(store);

        std::printf("3. Changing\n");
        const size_t commits = counter.commits();
        updateControls(store, characters);
        removeRanges(store, characters);
        removeAllAndThinkAgain(store);
        showFailures(store, characters.front());
        expect(counter.commits() == commits + 2, "the number of observed commits");
        counter.tell();
    }
    tellSize(store);
    close(std::move(store));

    std::printf("4. The same store with a newer model\n");
    const StopWatch watch;
    store = openStore(directory, makeSecondModel());
    std::printf("   opened in %.1f ms\n", watch.seconds() * 1e3);
    checkChangedModel(store, characters);
    fillZoneCounts(store);
    linkZones(store);

    std::printf("5. Questions\n");
    askAboutZones(store);
    askAboutCharacters(store);
    tellSize(store);
    close(std::move(store));
    if (directory.starts_with(kMemory)) return;
    const std::string folder = folderOf(directory);
    std::printf("The data stays in %s; try: %s %s\n", folder.c_str(),
                folder == directory ? "mdb_stat -e" : "ls -l", folder.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 2 || (argc == 2 && argv[1][0] == '-')) {
        std::fprintf(stderr,
                     "usage: demo [FOLDER | memory:NAME | memory-wal:FOLDER]\n"
                     "The folder is ./quillmere-demo by default.\n");
        return 2;
    }
    try {
        runDemo(argc == 2 ? argv[1] : "quillmere-demo");
        return 0;
    } catch (const std::exception& error) {
        std::fflush(stdout);
        std::fprintf(stderr, "demo: %s\n", error.what());
        return 1;
    }
}
