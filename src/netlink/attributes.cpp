#include "netlink/attributes.h"

namespace netlink {

namespace {

bool keeps(const nlattr* attribute, const AttributeRule& rule) {
    if (rule.type == MNL_TYPE_UNSPEC) return mnl_attr_get_payload_len(attribute) >= rule.size;
    return mnl_attr_validate(attribute, rule.type) == 0;
}

}  // namespace

Attributes::Attributes(const nlmsghdr& message, std::size_t headerSize,
                       std::span<const AttributeRule> rules) {
    const char* tail = static_cast<const char*>(mnl_nlmsg_get_payload_tail(&message));
    const auto* next = static_cast<const nlattr*>(mnl_nlmsg_get_payload_offset(&message, headerSize));
    for (; mnl_attr_ok(next, static_cast<int>(tail - reinterpret_cast<const char*>(next)));
         next = mnl_attr_next(next))
        for (const AttributeRule& rule : rules)
            if (rule.number == mnl_attr_get_type(next) && keeps(next, rule)) found.push_back(next);
}

const nlattr* Attributes::find(std::uint16_t number) const {
    for (const nlattr* attribute : found)
        if (mnl_attr_get_type(attribute) == number) return attribute;
    return nullptr;
}

std::uint32_t Attributes::u32(std::uint16_t number, std::uint32_t absent) const {
    const nlattr* attribute = find(number);
    return attribute ? mnl_attr_get_u32(attribute) : absent;
}

std::string Attributes::text(std::uint16_t number) const {
    const nlattr* attribute = find(number);
    return attribute ? mnl_attr_get_str(attribute) : std::string();
}

}  // namespace netlink
