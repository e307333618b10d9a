// Questions: conditions on properties and across relations, by indexes where there are some,
// ordered, paged and added up. A builder collects conditions and makes the query; the query is run,
// as often as you like and with other values if you like.

#include "demo_queries.h"

#include <cinttypes>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "demo_model.h"
#include "demo_objects.h"
#include "demo_tell.h"
#include "object.h"

namespace {

QueryBuilder on(const Store& store, EntityId entity) {
    return QueryBuilder(check(qmr_query_builder(store.get(), entity), "make a query builder"));
}

// A builder keeps the first failure of its calls, so that one look at the end is enough.
Query build(const QueryBuilder& builder) {
    return Query(check(qmr_query(builder.get()), "build a query"));
}

uint64_t count(const Query& query) {
    uint64_t count = 0;
    check(qmr_query_count(query.get(), &count), "count with a query");
    return count;
}

// Prints a text property of everything found, at most `most` of it. Without a transaction around
// it, what a query finds are copies that belong to the array.
void tellFound(const char* what, const Query& query, uint16_t property, size_t most = 6) {
    const ObjectArray found(check(qmr_query_find(query.get()), "find with a query"));
    std::printf("   %s (%zu):", what, found->count);
    for (size_t i = 0; i < found->count && i < most; ++i) {
        const std::string text(ObjectReader(found->bytes[i].data).text(property));
        std::printf("%s %s", i == 0 ? "" : ",", text.c_str());
    }
    std::printf("%s\n", found->count > most ? ", ..." : "");
}

// A unique index makes this one look-up, the comparison included.
uint64_t countryWithCode(const Store& store, const char* code) {
    const QueryBuilder builder = on(store, kCountry);
    qmr_qb_equals_string(builder.get(), Country::kCode, code, true);
    const Query query = build(builder);
    const void* data;
    size_t size;
    check(qmr_query_find_unique(query.get(), &data, &size), "find a country by its code");
    return readCountry(data).id;
}

// ---- Zones and countries

void askByIndex(const Store& store) {
    const QueryBuilder builder = on(store, kZone);
    qmr_qb_equals_int(builder.get(), Zone::kMainCountry,
                      static_cast<int64_t>(countryWithCode(store, "MX")));
    tellFound("zones with the main country Mexico", build(builder), Zone::kName);
}

// Both directions of the many-to-many relation, as conditions and as lists of IDs.
void askByLinks(const Store& store) {
    const QueryBuilder zones = on(store, kZone);
    const QueryBuilder itsCountry(check(qmr_qb_link_standalone(zones.get(), kZoneCountries),
                                        "link zones to countries"));
    qmr_qb_equals_string(itsCountry.get(), Country::kName, "switzerland", false);
    tellFound("zones that Switzerland uses", build(zones), Zone::kName);

    const QueryBuilder countries = on(store, kCountry);
    const QueryBuilder itsZone(check(qmr_qb_backlink_standalone(countries.get(), kZoneCountries),
                                     "link countries to zones"));
    qmr_qb_equals_string(itsZone.get(), Zone::kName, "Europe/Zurich", true);
    const Query query = build(countries);
    tellFound("countries that use Europe/Zurich", query, Country::kName);
    std::printf("   described: %s\n", qmr_query_describe(query.get()));
    std::printf("   with values: %s\n", qmr_query_describe_params(query.get()));
}

// By counting links; for the exact number there is a condition.
void askByRelationCount(const Store& store) {
    QMR_kist* countries = check(qmr_kist(store.get(), kCountry), "find countries");
    std::map<size_t, std::string> byCount;
    size_t more = 0;
    const Txn txn = beginRead(store);
    forEachObject(openCursor(txn, kCountry).get(), [&](const void* data) {
        const Country country = readCountry(data);
        const IdArray linking(
            check(qmr_kist_rel_get_backlink_ids(countries, kZoneCountries, country.id),
                  "find the zones that link to a country"));
        expect(static_cast<int32_t>(linking->count) == country.zoneCount, "the number of links");
        if (linking->count <= 5) return;
        ++more;
        std::string& names = byCount[linking->count];
        names += (names.empty() ? "" : ", ") + country.name;
    });
    std::printf("   %zu countries with more than five zones:", more);
    for (const auto& [count, names] : byCount) std::printf(" %s %zu;", names.c_str(), count);
    std::printf("\n");

    const QueryBuilder builder = on(store, kCountry);
    qmr_qb_relation_count_property(builder.get(), kZone, Zone::kMainCountry, 0);
    tellFound("countries that are no zone's main country", build(builder), Country::kName, 3);
}

void askInOrder(const Store& store) {
    const QueryBuilder builder = on(store, kZone);
    qmr_qb_less_than_double(builder.get(), Zone::kLatitude, 0);
    qmr_qb_order(builder.get(), Zone::kLatitude, 0);
    const Query query = build(builder);
    check(qmr_query_offset_limit(query.get(), 3, 3), "set offset and limit");
    tellFound("southernmost zones, the second three", query, Zone::kName);
}

PropertyQuery property(const Query& query, uint16_t id) {
    return PropertyQuery(check(qmr_query_prop(query.get(), id), "query a property"));
}

void addUp(const Store& store) {
    const Query countries = build(on(store, kCountry));
    const PropertyQuery zoneCount = property(countries, Country::kZoneCount);
    int64_t sum = 0, most = 0;
    double average = 0;
    check(qmr_query_prop_sum_int(zoneCount.get(), &sum, nullptr), "add up");
    check(qmr_query_prop_max_int(zoneCount.get(), &most, nullptr), "find the maximum");
    check(qmr_query_prop_avg(zoneCount.get(), &average, nullptr), "find the average");
    std::printf("   zones of a country: %" PRId64 " in sum, %.2f on average, at most %" PRId64 "\n",
                sum, average, most);
}

// ---- Characters

void askByText(const Store& store) {
    const QueryBuilder prefix = on(store, kCharacter);
    qmr_qb_starts_with_string(prefix.get(), Character::kName, "GREEK SMALL LETTER ", true);
    tellFound("names with the prefix GREEK SMALL LETTER", build(prefix), Character::kName, 3);

    const QueryBuilder part = on(store, kCharacter);
    qmr_qb_contains_string(part.get(), Character::kName, "snowman", false);
    tellFound("names with snowman in them, in any case", build(part), Character::kName);
}

// Any of two, and a third condition: what stands side by side must all hold.
void askCombined(const Store& store) {
    const QueryBuilder builder = on(store, kCharacter);
    const qmr_qb_cond either[] = {
        qmr_qb_equals_string(builder.get(), Character::kCategory, "Lu", true),
        qmr_qb_equals_string(builder.get(), Character::kCategory, "Lt", true)};
    qmr_qb_any(builder.get(), either, 2);
    qmr_qb_between_2ints(builder.get(), Character::kCodePoint, 0x370, 0x3ff);
    const Query query = build(builder);
    std::printf("   capitals of the Greek block: %" PRIu64 ", by\n%s\n", count(query),
                qmr_query_describe_params(query.get()));

    const Query all = build(on(store, kCharacter));
    const PropertyQuery category = property(all, Character::kCategory);
    check(qmr_query_prop_distinct(category.get(), true), "ask for distinct values");
    uint64_t categories = 0;
    check(qmr_query_prop_count(category.get(), &categories), "count categories");
    std::printf("   %" PRIu64 " characters have %" PRIu64 " general categories\n", count(all),
                categories);
}

// The query is built once; each run gets its own value.
void askManyTimes(const Store& store) {
    const QueryBuilder builder = on(store, kCharacter);
    qmr_qb_equals_int(builder.get(), Character::kCodePoint, 0);
    qmr_qb_param_alias(builder.get(), "code point");
    const Query query = build(builder);
    const Txn txn = beginRead(store);
    const Cursor cursor = openCursor(txn, kCharacter);
    size_t found = 0;
    const StopWatch lookUps;
    constexpr int32_t kCodePoints = 0x10000;
    for (int32_t codePoint = 0; codePoint < kCodePoints; ++codePoint) {
        check(qmr_query_param_alias_int(query.get(), "code point", codePoint), "set a value");
        const IdArray ids(check(qmr_query_cursor_find_ids(query.get(), cursor.get()), "find"));
        found += ids->count;
    }
    tellRate(kCodePoints, "code points looked up by index", lookUps);

    const uint64_t total = count(build(on(store, kCharacter)));
    expect(found > 0 && found < total, "the number of characters below U+10000");
    const QueryBuilder unindexed = on(store, kCharacter);
    qmr_qb_less_than_int(unindexed.get(), Character::kUpperCase, 0);
    const Query none = build(unindexed);
    const StopWatch scan;
    expect(count(none) == 0, "characters with a negative capital");
    tellRate(total, "characters scanned for a number", scan);
}

// The index that answers also refuses.
void showUnique(const Store& store) {
    Character twin;
    twin.codePoint = 'A';
    twin.name = "LATIN CAPITAL LETTER A AGAIN";
    twin.category = "Lu";
    ObjectWriter writer;
    const auto [data, size] = write(writer, twin);
    QMR_kist* characters = check(qmr_kist(store.get(), kCharacter), "find characters");
    expect(qmr_kist_put_object(characters, data, size) == 0 &&
               qmr_last_error_code() == QMR_ERROR_UNIQUE_VIOLATED,
           "a second letter A");
    std::printf("   a second letter A: %s\n", qmr_last_error_message());
}

}  // namespace

void linkZones(const Store& store) {
    std::map<std::string, uint64_t> countries;
    std::vector<Zone> zones;
    size_t links = 0;
    const StopWatch watch;
    Txn txn = beginWrite(store);
    forEachObject(openCursor(txn, kCountry).get(), [&](const void* data) {
        const Country country = readCountry(data);
        countries[country.code] = country.id;
    });
    forEachObject(openCursor(txn, kZone).get(),
                  [&](const void* data) { zones.push_back(readZone(data)); });
    {
        const Cursor cursor = openCursor(txn, kZone);
        ObjectWriter writer;
        for (Zone& zone : zones) {
            zone.mainCountry = countries.at(zone.countries.front());
            put(cursor.get(), writer, zone);
            for (const std::string& code : zone.countries) {
                check(qmr_cursor_rel_put(cursor.get(), kZoneCountries, zone.id,
                                         countries.at(code)),
                      "link a zone with a country");
                ++links;
            }
        }
    }
    commit(std::move(txn));
    tellRate(links, "links between zones and countries", watch);
}

void askAboutZones(const Store& store) {
    askByIndex(store);
    askByLinks(store);
    askByRelationCount(store);
    askInOrder(store);
    addUp(store);
}

void askAboutCharacters(const Store& store) {
    askByText(store);
    askCombined(store);
    askManyTimes(store);
    showUnique(store);
}
