#include "router/configvalues.h"

#include <arpa/inet.h>
#include <limits.h>
#include <net/if.h>

#include <charconv>

#include "tk/characters.h"
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

/// Reads each entry of a list; `wrong` makes the fault of a value that cannot be read.
template <typename Value, typename Wrong>
tk::Result<std::vector<Value>> listIn(const toml::node& value,
                                      std::optional<Value> (*parse)(std::string_view), const Wrong& wrong) {
    const toml::array* list = value.as_array();
    if (!list) return wrong(value);
    std::vector<Value> values;
    for (const toml::node& entry : *list) {
        const auto parsed = parse(textOf(entry));
        if (!parsed) return wrong(entry);
        values.push_back(*parsed);
    }
    return values;
}

/// Reads each entry of a list; `read` says what is wrong with one.
template <typename Value, typename Read>
tk::Result<std::vector<Value>> eachIn(const toml::array& list, const Read& read) {
    std::vector<Value> values;
    for (const toml::node& entry : list) {
        tk::Result<Value> value = read(entry);
        if (!value.isOk()) return value.status();
        values.push_back(value.take());
    }
    return values;
}

}  // namespace

tk::Status ConfigValues::fault(std::string_view key, const toml::node& where, std::string_view what) const {
    return tk::Status::failure(name + ":" + std::to_string(where.source().begin.line) + ": " +
                               std::string(key) + ": " + std::string(what));
}

tk::Result<bool> ConfigValues::flag(std::string_view key, const toml::node& value) const {
    if (!value.is_boolean()) return fault(key, value, "must be true or false");
    return value.as_boolean()->get();
}

tk::Result<std::uint32_t> ConfigValues::number(std::string_view key, const toml::node& value,
                                               std::uint32_t lowest, std::uint32_t highest) const {
    const toml::value<std::int64_t>* number = value.as_integer();
    if (!number || number->get() < lowest || number->get() > highest)
        return fault(key, value,
                     "must be a number from " + std::to_string(lowest) + " to " + std::to_string(highest));
    return static_cast<std::uint32_t>(number->get());
}

tk::Result<tk::Account> ConfigValues::account(std::string_view key, const toml::node& value) const {
    if (!value.is_string()) return fault(key, value, "must be the name of a user");
    const std::string& user = value.as_string()->get();
    tk::Result<std::optional<tk::Account>> found = tk::findAccount(user);
    if (!found.isOk()) return fault(key, value, found.reason());
    if (*found) return **found;
    return fault(key, value, "there is no user \"" + user + "\"");
}

tk::Result<std::vector<links::Prefix>> ConfigValues::networks(std::string_view key,
                                                              const toml::node& value) const {
    return listIn(value, &prefixNamed, [&](const toml::node& culprit) {
        return fault(key, culprit, "must be a list of networks, such as \"192.0.2.0/24\"");
    });
}

tk::Result<std::vector<nat::PortRange>> ConfigValues::ports(std::string_view key,
                                                            const toml::node& value) const {
    return listIn(value, &portsOf, [&](const toml::node& culprit) {
        return fault(key, culprit, "must be a list of ports, such as 80 and \"1024-65535\"");
    });
}

tk::Result<std::vector<tk::Path>> ConfigValues::paths(std::string_view key, const toml::node& value) const {
    return listIn(value, &pathOf, [&](const toml::node& culprit) {
        return fault(key, culprit, "must be a list of paths, such as \"20,5\"");
    });
}

tk::Result<std::string> ConfigValues::interface(std::string_view key, const toml::node& value) const {
    const std::string interface = value.is_string() ? value.as_string()->get() : std::string();
    if (interface.empty() || interface.size() >= IF_NAMESIZE)
        return fault(key, value, "must be the name of an interface, such as \"eth0\"");
    return interface;
}

tk::Result<std::vector<std::string>> ConfigValues::interfaces(std::string_view key,
                                                              const toml::node& value) const {
    const toml::array* list = value.as_array();
    if (!list) return fault(key, value, "must be a list of interfaces, such as \"lan0\"");
    return eachIn<std::string>(*list, [&](const toml::node& entry) { return interface(key, entry); });
}

tk::Result<std::vector<std::string>> ConfigValues::command(std::string_view key,
                                                           const toml::node& value) const {
    const toml::array* list = value.as_array();
    if (!list || list->empty()) return fault(key, value, "must be a list of texts");
    std::vector<std::string> words;
    for (const toml::node& word : *list) {
        if (!word.is_string()) return fault(key, word, "must be a list of texts");
        words.push_back(word.as_string()->get());
    }
    if (!words.front().starts_with('/')) return fault(key, value, "must begin with a full path");
    return words;
}

tk::Result<std::string> ConfigValues::unit(std::string_view key, const toml::node& value) const {
    if (!value.is_string() || !isUnitName(value.as_string()->get()))
        return fault(key, value, "must be the name of a service, such as \"upnpd.service\"");
    return value.as_string()->get();
}

tk::Result<std::string> ConfigValues::file(std::string_view key, const toml::node& value) const {
    const std::string path = value.is_string() ? value.as_string()->get() : std::string();
    const bool isFile = path.starts_with('/') && !path.ends_with('/') && path.size() < PATH_MAX;
    if (!isFile || tk::printable(path) != path)
        return fault(key, value, "must be the full path of a file, such as \"/run/tk/start/upnpd\"");
    return path;
}

tk::Result<std::uint32_t> ConfigValues::program(std::string_view key, const toml::node& value) const {
    return number(key, value, 1, tk::program::firstClient - 1);
}

tk::Result<std::vector<std::uint32_t>> ConfigValues::programs(std::string_view key,
                                                              const toml::node& value) const {
    const toml::array* list = value.as_array();
    if (!list) return fault(key, value, "must be a list of numbers");
    return eachIn<std::uint32_t>(*list, [&](const toml::node& entry) { return program(key, entry); });
}

}  // namespace router
