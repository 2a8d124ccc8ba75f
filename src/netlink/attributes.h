#pragma once

#include <libmnl/libmnl.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace netlink {

/// One attribute that is read: its number, its type, and its smallest size where the type has none.
struct AttributeRule {
    std::uint16_t number;
    mnl_attr_data_type type;
    std::size_t size;
};

/// The attributes of one netlink message that a table of rules names; what does not keep its rule reads as
/// absent.
/// Lifetime: the message outlives the object.
class Attributes {
public:
    /// Reads what follows the family's own header of `headerSize` bytes.
    Attributes(const nlmsghdr& message, std::size_t headerSize, std::span<const AttributeRule> rules);

    /// The attribute, null where it is absent.
    const nlattr* find(std::uint16_t number) const;
    // Its value, or what stands for an absent one.
    std::uint32_t u32(std::uint16_t number, std::uint32_t absent = 0) const;
    std::string text(std::uint16_t number) const;

private:
    std::vector<const nlattr*> found;
};

}  // namespace netlink
