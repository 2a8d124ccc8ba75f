#pragma once

#include <cstdint>
#include <string>

#include "xml/xmlnode.h"

/// One entry of a device's icon list.
struct UpnpIcon {
    std::string mimetype;
    std::int32_t width = 0;   // pixels
    std::int32_t height = 0;  // pixels
    std::int32_t depth = 0;   // bits of colour
    std::string url;          // path on the daemon's HTTP server

    /// The element "icon". The three numbers are written as unsigned ones.
    XMLNode buildDescription() const;
};
