#pragma once

#include "core/store_options.h"
#include "quillmere/quillmere.h"

// The record behind an options handle; owned by the caller until an open takes it over.
struct QMR_store_options {
    quillmere::StoreOptions options;
};
