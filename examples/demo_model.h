#pragma once

// The data model of the demo: the tables of time zones and of characters that the system carries.

#include <quillmere/quillmere.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "object.h"

// IDs are the place of entities and properties in keys and objects: they are given once, in order,
// and never reused.
enum EntityId : qmr_schema_id { kCountry = 1, kZone = 2, kCharacter = 3, kImportNote = 4 };
enum IndexId : qmr_schema_id { kByCode = 1, kByCountry = 2, kByCodePoint = 3, kByName = 4 };
enum RelationId : qmr_schema_id { kZoneCountries = 1 };

const char* nameOf(qmr_schema_id entity);

// Each object keeps its own ID in its first property. 0 asks the database for a new one.
constexpr uint16_t kId = 1;

struct Country {
    enum Property : uint16_t { kCode = 2, kName = 3, kZoneCount = 4 };

    uint64_t id = 0;
    std::string code, name;
    int32_t zoneCount = -1;  // only in the second version of the model; -1 for null
};

struct Zone {
    enum Property : uint16_t {
        kName = 2, kLatitude = 3, kLongitude = 4, kCountries = 5, kRemark = 6,
        kMainCountry = 7
    };

    uint64_t id = 0;
    std::string name;
    double latitude = 0, longitude = 0;  // degrees
    std::vector<std::string> countries;  // codes
    std::string remark;                  // empty for null
    uint64_t mainCountry = 0;            // only in the second version: ID of a Country, 0 for none
};

struct Character {
    enum Property : uint16_t { kCodePoint = 2, kName = 3, kCategory = 4, kUpperCase = 5 };

    uint64_t id = 0;
    int32_t codePoint = 0;
    std::string name, category;
    int32_t upperCase = 0;   // 0 for null
    std::string formerName;  // not stored
};

struct ImportNote {
    enum Property : uint16_t { kFile = 2, kLines = 3, kTime = 4 };

    uint64_t id = 0;
    std::string file;
    int32_t lines = 0;
    int64_t time = 0;  // milliseconds since 1970
};

// The two versions of the model. The second renames Character.category to generalCategory, adds
// Country.zoneCount and no longer has ImportNote. For questions it has indexes, on Country.code,
// Character.codePoint (both unique) and Character.name, the to-one relation Zone.mainCountry, and
// the many-to-many relation of zones and countries. The caller hands them to qmr_opt_model().
QMR_model* makeFirstModel();
QMR_model* makeSecondModel();

// The bytes of an object live until the writer's next one.
std::pair<void*, size_t> write(ObjectWriter& writer, const Country& country);
std::pair<void*, size_t> write(ObjectWriter& writer, const Zone& zone);
std::pair<void*, size_t> write(ObjectWriter& writer, const Character& character);
std::pair<void*, size_t> write(ObjectWriter& writer, const ImportNote& note);

Country readCountry(const void* data);
Zone readZone(const void* data);
Character readCharacter(const void* data);
