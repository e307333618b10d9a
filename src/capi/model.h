#pragma once

#include <string>

#include "quillmere/quillmere.h"
#include "schema/model_builder.h"

// The record behind a model handle. The first failure sticks: later calls change nothing and give
// its code, and the options refuse the model.
struct QMR_model {
    quillmere::ModelBuilder builder;
    qmr_err errorCode = 0;
    std::string errorMessage;
};
