#pragma once

#include <string>
#include <vector>

#include "doctor/facts.h"

namespace doctor {

/// The lines that make a chain at forward let mapped connections through. Which they are depends on the tool
/// that keeps the chain.
/// `flow`: one that the chain drops.
[[nodiscard]] std::vector<std::string> letThrough(const Facts& facts, const Table& table,
                                                  const std::string& chain, const MappedFlow& flow);

}  // namespace doctor
