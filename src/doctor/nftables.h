#pragma once

#include <map>
#include <string>

#include "doctor/ruleset.h"
#include "tk/status.h"

namespace doctor {

/// The rules of one table as "nft -a list table" shows them: the text of each by its handle.
using RuleTexts = std::map<std::uint64_t, std::string>;

/// Reads what "nft -a list table" prints.
[[nodiscard]] RuleTexts readRuleTexts(const std::string& listing);

/// Reads what "nft -j -a list table" prints.
/// `setsAreKnown`: false when it was asked to leave out the elements of sets.
/// Errors: when the text is not of that form.
[[nodiscard]] tk::Result<Table> readNftTable(const std::string& json, const RuleTexts& texts,
                                             bool setsAreKnown = true);

}  // namespace doctor
