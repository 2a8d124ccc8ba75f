#pragma once

#include <iterator>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>

// Every source of the preset `memory` begins with this: what libc++ 14 lacks, and what it has compiled without the
// sanitizer, so that a text that it writes would seem to be unset.
_LIBCPP_BEGIN_NAMESPACE_STD

template <typename Number>
string decimal(Number value) {
    char digits[numeric_limits<Number>::digits10 + 2];  // one more than that, and the sign
    char* first = end(digits);
    auto rest = static_cast<make_unsigned_t<Number>>(value);
    if (value < 0) rest = 0 - rest;
    do *--first = static_cast<char>('0' + rest % 10);
    while ((rest /= 10) != 0);
    if (value < 0) *--first = '-';
    return {first, end(digits)};
}

inline string to_string(int value) {
    return decimal(value);
}
inline string to_string(unsigned value) {
    return decimal(value);
}
inline string to_string(long value) {
    return decimal(value);
}
inline string to_string(unsigned long value) {
    return decimal(value);
}

template <typename Array>
unique_ptr<Array> make_unique_for_overwrite(size_t size) {
    return unique_ptr<Array>(new remove_extent_t<Array>[size]);
}

_LIBCPP_END_NAMESPACE_STD
