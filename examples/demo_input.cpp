#include "demo_input.h"

#include <charconv>
#include <fstream>
#include <stdexcept>
#include <string_view>

namespace {

std::vector<std::string> split(std::string_view text, char separator) {
    std::vector<std::string> parts;
    for (size_t start = 0;;) {
        const size_t end = text.find(separator, start);
        parts.emplace_back(text.substr(start, end - start));
        if (end == text.npos) return parts;
        start = end + 1;
    }
}

// Calls `use` with the columns of each line that is no comment.
template <class Use>
void forEachRow(const std::string& name, const char* package, char separator, size_t minColumns,
                Use&& use) {
    std::ifstream file(name);
    if (!file) {
        throw std::runtime_error("Cannot read " + name + ". It comes with Debian's package " +
                                 package + ": apt-get install " + package);
    }
    std::string line;
    for (size_t number = 1; std::getline(file, line); ++number) {
        if (line.empty() || line.front() == '#') continue;
        const auto columns = split(line, separator);
        const auto damaged = [&] {
            return std::runtime_error(name + ":" + std::to_string(number) + " is not understood");
        };
        if (columns.size() < minColumns) throw damaged();
        try {
            use(columns);
        } catch (const std::invalid_argument&) {
            throw damaged();
        }
    }
}

int32_t parseNumber(std::string_view digits, int base) {
    int32_t value = 0;
    const char* end = digits.data() + digits.size();
    const auto result = std::from_chars(digits.data(), end, value, base);
    if (result.ec != std::errc() || result.ptr != end) throw std::invalid_argument("number");
    return value;
}

// [D]DDMM or [D]DDMMSS with a sign in front.
double parseDegrees(std::string_view text, size_t degreeDigits) {
    if (text.size() != degreeDigits + 3 && text.size() != degreeDigits + 5) {
        throw std::invalid_argument("degrees");
    }
    const auto digits = text.substr(1);
    double degrees = parseNumber(digits.substr(0, degreeDigits), 10);
    degrees += parseNumber(digits.substr(degreeDigits, 2), 10) / 60.0;
    if (digits.size() > degreeDigits + 2) {
        degrees += parseNumber(digits.substr(degreeDigits + 2), 10) / 3600.0;
    }
    return text.front() == '-' ? -degrees : degrees;
}

}  // namespace

std::vector<Country> readCountryTable(const std::string& file) {
    std::vector<Country> countries;
    forEachRow(file, "tzdata", '\t', 2, [&](const std::vector<std::string>& columns) {
        Country country;
        country.code = columns[0];
        country.name = columns[1];
        countries.push_back(std::move(country));
    });
    return countries;
}

std::vector<Zone> readZoneTable(const std::string& file) {
    std::vector<Zone> zones;
    forEachRow(file, "tzdata", '\t', 3, [&](const std::vector<std::string>& columns) {
        const std::string_view place = columns[1];
        const size_t longitude = place.find_first_of("+-", 1);
        if (longitude == place.npos) throw std::invalid_argument("place");
        Zone zone;
        zone.name = columns[2];
        zone.latitude = parseDegrees(place.substr(0, longitude), 2);
        zone.longitude = parseDegrees(place.substr(longitude), 3);
        zone.countries = split(columns[0], ',');
        if (columns.size() > 3) zone.remark = columns[3];
        zones.push_back(std::move(zone));
    });
    return zones;
}

std::vector<Character> readCharacterTable(const std::string& file) {
    std::vector<Character> characters;
    forEachRow(file, "unicode-data", ';', 15, [&](const std::vector<std::string>& columns) {
        Character character;
        character.codePoint = parseNumber(columns[0], 16);
        character.name = columns[1];
        character.category = columns[2];
        character.formerName = columns[10];
        if (!columns[12].empty()) character.upperCase = parseNumber(columns[12], 16);
        characters.push_back(std::move(character));
    });
    return characters;
}
