#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "tk/message.h"

/// What the tests of stores put in, by key.
namespace faults {

using Entries = std::map<std::uint32_t, tk::message>;

inline constexpr std::uint32_t revision = 1;

/// An entry that holds a text.
inline tk::message text(const std::string& value) {
    tk::message content;
    content.insert_string(1, value);
    return content;
}

}  // namespace faults
