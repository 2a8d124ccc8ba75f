#pragma once

#include <libmnl/libmnl.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace netlink {

/// An attribute to read: its number, its type, and its smallest size if the type has none.
struct AttributeRule {
    std::uint16_t number;
    mnl_attr_data_type type;
    std::size_t size;
};

/// The attributes of one netlink message that a table of rules names. One that breaks its rule reads as
/// absent.
/// Lifetime: the message outlives the object.
class Attributes {
public:
    /// Reads the attributes after the family's own header of `headerSize` bytes.
    Attributes(const nlmsghdr& message, std::size_t headerSize, std::span<const AttributeRule> rules);

    /// The attribute; null when it is absent.
    const nlattr* find(std::uint16_t number) const;
    /// The attribute's value; `absent`, or an empty text, when it is absent.
    std::uint32_t u32(std::uint16_t number, std::uint32_t absent = 0) const;
    std::string text(std::uint16_t number) const;

private:
    std::vector<const nlattr*> found;
};

}  // namespace netlink
