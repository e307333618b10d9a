#pragma once

// What the demo asks its store, with the second version of the model.

#include "handles.h"

// Sets Zone.mainCountry and links each zone with all of its countries.
void linkZones(const Store& store);

void askAboutZones(const Store& store);
void askAboutCharacters(const Store& store);
