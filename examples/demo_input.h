#pragma once

// Reads the tables that Debian's packages tzdata and unicode-data install. A missing or damaged
// file throws std::runtime_error, with the name of the package where that helps.

#include <string>
#include <vector>

#include "demo_model.h"

std::vector<Country> readCountryTable(const std::string& file);
std::vector<Zone> readZoneTable(const std::string& file);
std::vector<Character> readCharacterTable(const std::string& file);
