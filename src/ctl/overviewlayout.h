#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ctl/overview.h"
#include "ctl/terminal.h"
#include "ctl/traffic.h"

namespace ctl {

/// The overview for people, on at most as many lines as the terminal shows above its last one: where there are
/// more mappings, they are grouped by the hosts that they lead to. With a history, each has a line of its
/// traffic. Without a limit everything is there.
[[nodiscard]] std::vector<Line> layOut(const Overview& overview, const Terminal& terminal,
                                       const TrafficHistory* history = nullptr);

/// A number of bytes or packets with three digits or so: "999 B", "3.4 kB", "12 MB"; "12", "3.4 k".
[[nodiscard]] std::string quantityText(std::uint64_t value, const std::string& unit);

}  // namespace ctl
