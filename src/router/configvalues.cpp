#include "router/configvalues.h"

#include <arpa/inet.h>
#include <net/if.h>

#include <algorithm>
#include <charconv>

#include "tk/names.h"

namespace router {

namespace {

constexpr std::uint32_t highestPort = 65535;
constexpr std::uint32_t addressBits = 32;
constexpr std::size_t longestUnitName = 255;

/// A decimal number of at most `highest`, which is the whole text.
std::optional<std::uint32_t> numberOf(std::string_view text, std::uint32_t highest) {
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value > highest) return std::nullopt;
    return value;
}

std::optional<links::Prefix> prefixNamed(std::string_view text) {
    const std::size_t slash = text.find('/');
    if (slash == std::string_view::npos) return std::nullopt;
    const auto length = numberOf(text.substr(slash + 1), addressBits);
    in_addr address{};
    if (!length || ::inet_pton(AF_INET, std::string(text.substr(0, slash)).c_str(), &address) != 1)
        return std::nullopt;
    const links::Prefix prefix = links::prefixOf(ntohl(address.s_addr), *length);
    return prefix.network == ntohl(address.s_addr) ? std::optional(prefix) : std::nullopt;
}

std::optional<nat::PortRange> portsOf(std::string_view text) {
    const std::size_t dash = text.find('-');
    const auto first = numberOf(text.substr(0, dash), highestPort);
    const auto last = dash == std::string_view::npos ? first : numberOf(text.substr(dash + 1), highestPort);
    if (!first || !last || *first > *last) return std::nullopt;
    return nat::PortRange{static_cast<std::uint16_t>(*first), static_cast<std::uint16_t>(*last)};
}

std::optional<tk::Path> pathOf(std::string_view text) {
    const std::size_t comma = text.find(',');
    const auto program = numberOf(text.substr(0, comma), tk::program::firstClient - 1);
    if (!program) return std::nullopt;
    if (comma == std::string_view::npos) return tk::Path{*program};
    const auto handler = numberOf(text.substr(comma + 1), tk::unassigned);
    return handler ? std::optional(tk::Path{*program, *handler}) : std::nullopt;
}

/// True for a name that systemd takes. False for an option of its commands.
bool isUnitName(std::string_view name) {
    constexpr std::string_view suffix = ".service";
    constexpr std::string_view known =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789:-_.\\@";
    return name.size() > suffix.size() && name.size() <= longestUnitName && name.ends_with(suffix) &&
           name.front() != '-' && name.find_first_not_of(known) == std::string_view::npos;
}

/// The text of an entry: a string, or a number as written.
std::string textOf(const toml::node& entry) {
    if (const auto* number = entry.as_integer()) return std::to_string(number->get());
    return entry.is_string() ? entry.as_string()->get() : std::string();
}

/// Reads each entry of a list. False when the value is no list, or an entry cannot be read: `culprit` is that
/// entry.
template <typename Value>
bool readList(const toml::node& value, std::optional<Value> (*parse)(std::string_view),
              std::vector<Value>& out, const toml::node*& culprit) {
    culprit = &value;
    const toml::array* list = value.as_array();
    if (!list) return false;
    out.clear();
    for (const toml::node& entry : *list) {
        culprit = &entry;
        const auto parsed = parse(textOf(entry));
        if (!parsed) return false;
        out.push_back(*parsed);
    }
    return true;
}

}  // namespace

bool ConfigValues::fail(std::string_view key, const toml::node& where, std::string_view what) {
    fault = tk::Status::failure(name + ":" + std::to_string(where.source().begin.line) + ": " +
                                std::string(key) + ": " + std::string(what));
    return false;
}

bool ConfigValues::read(std::string_view key, const toml::node& value, bool& out) {
    if (!value.is_boolean()) return fail(key, value, "must be true or false");
    out = value.as_boolean()->get();
    return true;
}

bool ConfigValues::read(std::string_view key, const toml::node& value, std::int64_t lowest,
                        std::int64_t highest, std::uint32_t& out) {
    const toml::value<std::int64_t>* number = value.as_integer();
    if (!number || number->get() < lowest || number->get() > highest)
        return fail(key, value,
                    "must be a number from " + std::to_string(lowest) + " to " + std::to_string(highest));
    out = static_cast<std::uint32_t>(number->get());
    return true;
}

bool ConfigValues::read(std::string_view key, const toml::node& value, std::optional<tk::Account>& out) {
    if (!value.is_string()) return fail(key, value, "must be the name of a user");
    out = tk::findAccount(value.as_string()->get());
    return out || fail(key, value, "there is no user \"" + value.as_string()->get() + "\"");
}

bool ConfigValues::read(std::string_view key, const toml::node& value, std::vector<links::Prefix>& out) {
    const toml::node* culprit = nullptr;
    return readList(value, &prefixNamed, out, culprit) ||
           fail(key, *culprit, "must be a list of networks, such as \"192.0.2.0/24\"");
}

bool ConfigValues::read(std::string_view key, const toml::node& value, std::vector<nat::PortRange>& out) {
    const toml::node* culprit = nullptr;
    return readList(value, &portsOf, out, culprit) ||
           fail(key, *culprit, "must be a list of ports, such as 80 and \"1024-65535\"");
}

bool ConfigValues::read(std::string_view key, const toml::node& value, std::vector<tk::Path>& out) {
    const toml::node* culprit = nullptr;
    return readList(value, &pathOf, out, culprit) ||
           fail(key, *culprit, "must be a list of paths, such as \"20,5\"");
}

bool ConfigValues::readInterface(std::string_view key, const toml::node& value, std::string& out) {
    const std::string name = value.is_string() ? value.as_string()->get() : std::string();
    if (name.empty() || name.size() >= IF_NAMESIZE)
        return fail(key, value, "must be the name of an interface, such as \"eth0\"");
    out = name;
    return true;
}

bool ConfigValues::readInterfaces(std::string_view key, const toml::node& value,
                                  std::vector<std::string>& out) {
    const toml::array* list = value.as_array();
    if (!list) return fail(key, value, "must be a list of interfaces, such as \"lan0\"");
    return std::all_of(list->begin(), list->end(), [&](const toml::node& entry) {
        return readInterface(key, entry, out.emplace_back());
    });
}

bool ConfigValues::readCommand(std::string_view key, const toml::node& value, std::vector<std::string>& out) {
    const toml::array* list = value.as_array();
    if (!list || list->empty()) return fail(key, value, "must be a list of texts");
    for (const toml::node& word : *list) {
        if (!word.is_string()) return fail(key, word, "must be a list of texts");
        out.push_back(word.as_string()->get());
    }
    return out.front().starts_with('/') || fail(key, value, "must begin with a full path");
}

bool ConfigValues::readUnit(std::string_view key, const toml::node& value, std::string& out) {
    if (!value.is_string() || !isUnitName(value.as_string()->get()))
        return fail(key, value, "must be the name of a service, such as \"upnpd.service\"");
    out = value.as_string()->get();
    return true;
}

bool ConfigValues::readPrograms(std::string_view key, const toml::node& value,
                                std::vector<std::uint32_t>& out) {
    const toml::array* list = value.as_array();
    if (!list) return fail(key, value, "must be a list of numbers");
    for (const toml::node& entry : *list)
        if (!read(key, entry, 1, tk::program::firstClient - 1, out.emplace_back())) return false;
    return true;
}

}  // namespace router
