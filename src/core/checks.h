#pragma once

// Checks of arguments and state, active in every build. A failed check throws; its message holds
// the expression and a number: the source line, or, in the forms with _AT, a site number that is
// part of the text and stays when the file changes.

namespace quillmere::checks {

[[noreturn, gnu::cold]] void failArgumentNull(const char* name, int line);
[[noreturn, gnu::cold]] void failArgument(const char* expression, int line);
[[noreturn, gnu::cold]] void failState(const char* expression, int line);
[[noreturn, gnu::cold]] void failStateIn(const char* function, int line, const char* expression);

}  // namespace quillmere::checks

// ArgumentNullException: Argument "name" must not be null (L12)
#define CHECK_ARG_NOT_NULL(name) CHECK_ARG_NOT_NULL_AT(__LINE__, name)
#define CHECK_ARG_NOT_NULL_AT(site, name)                                                          \
    do {                                                                                           \
        if (!(name)) [[unlikely]]                                                                  \
            ::quillmere::checks::failArgumentNull(#name, site);                                    \
    } while (false)

// IllegalArgumentException: Argument condition "cond" not met (L12)
#define CHECK_ARG(cond) CHECK_ARG_AT(__LINE__, cond)
#define CHECK_ARG_AT(site, cond)                                                                   \
    do {                                                                                           \
        if (!(cond)) [[unlikely]]                                                                  \
            ::quillmere::checks::failArgument(#cond, site);                                        \
    } while (false)

// The short form of the C functions and their neighbours.
// IllegalStateException: State condition failed: "cond" (L12)
#define CHECK_STATE(cond) CHECK_STATE_SHORT_AT(__LINE__, cond, #cond)
#define CHECK_STATE_SHORT_AT(site, cond, text)                                                     \
    do {                                                                                           \
        if (!(cond)) [[unlikely]]                                                                  \
            ::quillmere::checks::failState(text, site);                                            \
    } while (false)

// The long form of everything below them.
// IllegalStateException: State condition failed in function:12: cond
#define CHECK_STATE_HERE(cond) CHECK_STATE_AT(__LINE__, cond)
#define CHECK_STATE_AT(site, cond) CHECK_STATE_TEXT_AT(site, cond, __func__, #cond)

// For a condition whose text names things differently from the code, or in another function.
#define CHECK_STATE_TEXT_AT(site, cond, function, text)                                            \
    do {                                                                                           \
        if (!(cond)) [[unlikely]]                                                                  \
            ::quillmere::checks::failStateIn(function, site, text);                                \
    } while (false)
