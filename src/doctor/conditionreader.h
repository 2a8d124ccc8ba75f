#pragma once

#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "doctor/ruleset.h"

namespace doctor {

/// Reads the conditions of one nft table's rules. They may look at sets of the same table.
/// Errors: throws what nlohmann::json throws when something is not of nft's form.
class ConditionReader {
public:
    using Json = nlohmann::json;

    /// `setsAreKnown`: false when the elements of sets were left out.
    explicit ConditionReader(bool setsAreKnown) : setsAreKnown(setsAreKnown) {}

    /// Notes a set or map that the conditions may look at.
    void noteSet(const Json& declaration);
    /// Appends what a match says: its own condition after those that it implies.
    void addMatch(const Json& left, const std::string& op, const Json& right,
                  std::vector<Condition>& conditions) const;
    /// Appends what it takes to come to an entry of a verdict map.
    void addKey(const Json& operand, const Json& key, std::vector<Condition>& conditions) const;
    /// The entries of a verdict map; null when they are not known.
    [[nodiscard]] const Json* entriesOf(const Json& data) const;

private:
    void addMasked(const Json& mask, const Json& right, Condition& condition) const;
    void addValues(const Json& right, Condition& condition) const;
    void addElements(const std::string& name, Condition& condition) const;

    const bool setsAreKnown;
    std::map<std::string, Json> sets;  // the elements of each
};

}  // namespace doctor
