#pragma once

// The parser of TOML, with the same switches in every source of a program: code that is made with others does not
// go together with it. Errors come as values; without streams, which bring all locales of the C++ library along.
#define TOML_EXCEPTIONS 0
#define TOML_FLOAT_CHARCONV 1
#define TOML_ENABLE_FORMATTERS 0
#include <toml++/toml.h>
