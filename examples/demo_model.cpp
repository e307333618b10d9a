#include "demo_model.h"

namespace {

// UIDs carry identity: a property with a known UID and another name was renamed, one that the model
// no longer has was removed. Drawn at random for each entity, and counted on for its properties.
constexpr qmr_uid kCountryUid = 4871283090213450900;
constexpr qmr_uid kZoneUid = 2219048371650928400;
constexpr qmr_uid kCharacterUid = 7730912846551200300;
constexpr qmr_uid kImportNoteUid = 1093847561029384700;
constexpr qmr_uid kIndexUid = 6120934875610293800;
constexpr qmr_uid kZoneCountriesUid = 3380912745610238400;

// Adds an entity with its ID property, then property by property in the order of their IDs.
class EntityWriter {
public:
    EntityWriter(QMR_model* model, EntityId id, qmr_uid uid)
        : model_(model), uid_(uid) {
        qmr_model_entity(model, nameOf(id), id, uid);
        property("id", QMRPropertyType_Long, QMRPropertyFlags_ID);
    }
    EntityWriter& property(const char* name, QMRPropertyType type, uint32_t flags = 0) {
        ++lastId_;
        qmr_model_property(model_, name, type, lastId_, uid_ + lastId_);
        if (flags) qmr_model_property_flags(model_, flags);
        qmr_model_entity_last_property_id(model_, lastId_, uid_ + lastId_);
        return *this;
    }
    // On the property added last. Opening builds the index from the objects that are there.
    EntityWriter& index(IndexId id, uint32_t flags) {
        qmr_model_property_flags(model_, flags);
        qmr_model_property_index_id(model_, id, kIndexUid + id);
        return *this;
    }
    // A property with the ID of an object of another entity; its index answers who refers to that.
    EntityWriter& toOne(const char* name, EntityId target, IndexId id) {
        property(name, QMRPropertyType_Relation,
                 QMRPropertyFlags_INDEXED | QMRPropertyFlags_INDEX_SKIP_ZERO);
        qmr_model_property_relation(model_, nameOf(target), id, kIndexUid + id);
        return *this;
    }
    // Links that are stored beside the objects, any number for each.
    EntityWriter& toMany(RelationId id, qmr_uid uid, EntityId target, qmr_uid targetUid) {
        qmr_model_relation(model_, id, uid, target, targetUid);
        return *this;
    }

private:
    QMR_model* model_;
    qmr_uid uid_;
    qmr_schema_id lastId_ = 0;
};

// The first mistake is kept in the model and reported by qmr_opt_model(), so that the calls need no
// checks of their own.
void addCountry(QMR_model* model, bool second) {
    EntityWriter country(model, kCountry, kCountryUid);
    country.property("code", QMRPropertyType_String);
    if (second) country.index(kByCode, QMRPropertyFlags_UNIQUE);
    country.property("name", QMRPropertyType_String);
    if (second) {
        country.property("zoneCount", QMRPropertyType_Int, QMRPropertyFlags_NULLABLE_SCALAR);
    }
}

void addZone(QMR_model* model, bool second) {
    EntityWriter zone(model, kZone, kZoneUid);
    zone.property("name", QMRPropertyType_String)
        .property("latitude", QMRPropertyType_Double)
        .property("longitude", QMRPropertyType_Double)
        .property("countries", QMRPropertyType_StringVector)
        .property("remark", QMRPropertyType_String);
    if (second) {
        zone.toOne("mainCountry", kCountry, kByCountry)
            .toMany(kZoneCountries, kZoneCountriesUid, kCountry, kCountryUid);
    }
}

void addCharacter(QMR_model* model, bool second) {
    EntityWriter character(model, kCharacter, kCharacterUid);
    character.property("codePoint", QMRPropertyType_Int);
    if (second) character.index(kByCodePoint, QMRPropertyFlags_UNIQUE);
    character.property("name", QMRPropertyType_String);
    if (second) character.index(kByName, QMRPropertyFlags_INDEXED);
    character.property(second ? "generalCategory" : "category", QMRPropertyType_String)
        .property("upperCase", QMRPropertyType_Int, QMRPropertyFlags_NULLABLE_SCALAR);
}

QMR_model* makeModel(bool second) {
    QMR_model* model = qmr_model();
    addCountry(model, second);
    addZone(model, second);
    addCharacter(model, second);
    if (second) {
        qmr_model_last_index_id(model, kByName, kIndexUid + kByName);
        qmr_model_last_relation_id(model, kZoneCountries, kZoneCountriesUid);
    } else {
        EntityWriter(model, kImportNote, kImportNoteUid)
            .property("file", QMRPropertyType_String)
            .property("lines", QMRPropertyType_Int)
            .property("time", QMRPropertyType_Date);
    }
    // Also when the entity is gone: its ID is not given again.
    qmr_model_last_entity_id(model, kImportNote, kImportNoteUid);
    return model;
}

}  // namespace

const char* nameOf(qmr_schema_id entity) {
    switch (entity) {
        case kCountry: return "Country";
        case kZone: return "Zone";
        case kCharacter: return "Character";
        case kImportNote: return "ImportNote";
        default: return "unknown";
    }
}

QMR_model* makeFirstModel() { return makeModel(false); }
QMR_model* makeSecondModel() { return makeModel(true); }

std::pair<void*, size_t> write(ObjectWriter& writer, const Country& country) {
    writer.begin().text(Country::kCode, country.code).text(Country::kName, country.name);
    writer.number<uint64_t>(kId, country.id);
    if (country.zoneCount >= 0) writer.number(Country::kZoneCount, country.zoneCount);
    return writer.finish();
}

std::pair<void*, size_t> write(ObjectWriter& writer, const Zone& zone) {
    writer.begin().text(Zone::kName, zone.name).texts(Zone::kCountries, zone.countries);
    if (!zone.remark.empty()) writer.text(Zone::kRemark, zone.remark);
    writer.number<uint64_t>(kId, zone.id);
    writer.number(Zone::kLatitude, zone.latitude).number(Zone::kLongitude, zone.longitude);
    if (zone.mainCountry) writer.number(Zone::kMainCountry, zone.mainCountry);
    return writer.finish();
}

std::pair<void*, size_t> write(ObjectWriter& writer, const Character& character) {
    writer.begin().text(Character::kName, character.name);
    writer.text(Character::kCategory, character.category);
    writer.number<uint64_t>(kId, character.id).number(Character::kCodePoint, character.codePoint);
    if (character.upperCase) writer.number(Character::kUpperCase, character.upperCase);
    return writer.finish();
}

std::pair<void*, size_t> write(ObjectWriter& writer, const ImportNote& note) {
    writer.begin().text(ImportNote::kFile, note.file).number<uint64_t>(kId, note.id);
    writer.number(ImportNote::kLines, note.lines).number(ImportNote::kTime, note.time);
    return writer.finish();
}

Country readCountry(const void* data) {
    const ObjectReader object(data);
    Country country;
    country.id = object.number<uint64_t>(kId);
    country.code = object.text(Country::kCode);
    country.name = object.text(Country::kName);
    if (!object.isNull(Country::kZoneCount)) {
        country.zoneCount = object.number<int32_t>(Country::kZoneCount);
    }
    return country;
}

Zone readZone(const void* data) {
    const ObjectReader object(data);
    Zone zone;
    zone.id = object.number<uint64_t>(kId);
    zone.name = object.text(Zone::kName);
    zone.latitude = object.number<double>(Zone::kLatitude);
    zone.longitude = object.number<double>(Zone::kLongitude);
    zone.countries = object.texts(Zone::kCountries);
    zone.remark = object.text(Zone::kRemark);
    zone.mainCountry = object.number<uint64_t>(Zone::kMainCountry);
    return zone;
}

Character readCharacter(const void* data) {
    const ObjectReader object(data);
    Character character;
    character.id = object.number<uint64_t>(kId);
    character.codePoint = object.number<int32_t>(Character::kCodePoint);
    character.name = object.text(Character::kName);
    character.category = object.text(Character::kCategory);
    character.upperCase = object.number<int32_t>(Character::kUpperCase);
    return character;
}
