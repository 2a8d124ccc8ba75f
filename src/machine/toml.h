#pragma once

// The parser of TOML, with the same switches in every source of a program: code that is made with others does not
// go together with it. Errors come as values; without streams, which bring all locales of the C++ library along.
// Without its checks of itself: some of them fail for text that is no TOML, before that is found and reported.
#define TOML_EXCEPTIONS 0
#define TOML_FLOAT_CHARCONV 1
#define TOML_ENABLE_FORMATTERS 0
#define TOML_ASSERT(expression) static_assert(true)
#include <toml++/toml.h>
