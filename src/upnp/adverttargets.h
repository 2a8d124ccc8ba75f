#pragma once

#include <map>
#include <string>

/// What discovery announces of a device tree: from notification type (NT) to unique service name (USN). One
/// type may have several names.
using AdvertTargets = std::multimap<std::string, std::string>;
