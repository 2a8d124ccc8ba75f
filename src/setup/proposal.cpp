#include "setup/proposal.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include "setup/uplinks.h"

namespace setup {

namespace {

using machine::Address;
using machine::Link;
using machine::Links;

std::string joined(const Names& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
    return text;
}

/// True for the names that programs give to the networks of containers and virtual machines.
bool isOfContainers(const std::string& name) {
    constexpr std::string_view starts[] = {"docker",  "veth",    "virbr",   "vnet",  "lxcbr",
                                           "lxdbr",   "incusbr", "podman",  "cni",   "cali",
                                           "flannel", "kube-",   "vboxnet", "vmnet", "waydroid"};
    for (const std::string_view start : starts)
        if (name.starts_with(start)) return true;
    // "br-" and twelve hexadecimal digits: a bridge that a container engine made and named.
    constexpr std::size_t length = 15;
    return name.size() == length && name.starts_with("br-") &&
           std::all_of(name.begin() + 3, name.end(), [](unsigned char c) { return std::isxdigit(c) != 0; });
}

/// What an address says against its interface as a LAN; empty: nothing.
std::string whyNoLan(const Address& address) {
    switch (machine::reachOf(address.network.address)) {
        case machine::Reach::site:
            return address.isLeased ? "its address is leased, as by an uplink" : "";
        case machine::Reach::reserved:
            return "its network " + address.network.text() + " is for documentation";
        case machine::Reach::shared:
            return "its network " + address.network.text() + " is a provider's";
        case machine::Reach::link:
            return "its address is link-local";
        case machine::Reach::everywhere:
            return "its network " + address.network.text() + " is public";
    }
    return "";
}

class Proposer {
public:
    Proposer(const Links& machine, const Present& present, const Wishes& wishes)
        : machine(machine), present(present), wishes(wishes), uplinks(machine) {}

    tk::Result<Proposal> propose() {
        tk::Status status = checkWishes();
        if (status.isOk()) status = chooseLan();
        if (!status.isOk()) return status;
        chooseWan();
        status = checkChoice();
        return status.isOk() ? tk::Result<Proposal>(proposal()) : status;
    }

private:
    tk::Status checkWishes() const {
        for (const Names* names : {&wishes.lan, &wishes.wan})
            for (const std::string& name : *names)
                if (tk::Status status = checkName(name); !status.isOk()) return status;
        for (const std::string& name : wishes.lan)
            if (isIn(wishes.wan, name)) return tk::Status::failure(name + " cannot be both --lan and --wan");
        return {};
    }

    tk::Status checkName(const std::string& name) const {
        const Link* link = machine.find(name);
        if (!link || link->type == "loopback")
            return tk::Status::failure("there is no interface '" + name +
                                       "' that can have a role; there are: " + joined(names()));
        const Link& owner = ownerOf(machine, *link);
        if (&owner == link) return {};
        return tk::Status::failure(name + " is a member of " + owner.name + ": name " + owner.name +
                                   " instead");
    }

    Names names() const {
        Names list;
        for (const Link& link : machine.links)
            if (link.type != "loopback" && &ownerOf(machine, link) == &link) list.push_back(link.name);
        return list;
    }

    /// The interface that a role on `name` belongs to; null when it is absent.
    const Link* owner(const std::string& name) const {
        const Link* link = machine.find(name);
        return link ? &ownerOf(machine, *link) : nullptr;
    }

    tk::Status chooseLan() {
        if (!wishes.lan.empty()) {
            for (const std::string& name : wishes.lan)
                if (tk::Status status = addLan(name, "named with --lan"); !status.isOk()) return status;
            return {};
        }
        if (present.lanInterfaces && !present.lanInterfaces->empty())
            for (const std::string& name : *present.lanInterfaces)
                if (tk::Status status = addLanOfFile(name); !status.isOk()) return status;
        addLanOfItems();
        if (!present.lanInterfaces || present.lanInterfaces->empty()) findLan();
        return {};
    }

    tk::Status addLanOfFile(const std::string& name) {
        const Link* link = owner(name);
        if (!link) {
            absent.push_back(name);
            return {};
        }
        return isIn(wishes.wan, link->name) ? tk::Status() : addLan(link->name, "named in [lan] interfaces");
    }

    tk::Status addLan(const std::string& name, const std::string& why) {
        const std::string outside = uplinks.whyOutside(name);
        if (!outside.empty() && !wishes.isForced && !isIn(wishes.wan, name))
            return tk::Status::failure(name + " (" + why + ") is outside: " + outside +
                                       "; --force makes it internal anyway");
        take(lan, name, why);
        return {};
    }

    /// An internal role on an uplink is a mistake that is not kept.
    void addLanOfItems() {
        for (const Item& item : present.items) {
            const Link* link = owner(item.interface);
            if (!link || item.role != Role::internal || isIn(wishes.wan, link->name)) continue;
            if (uplinks.whyOutside(link->name).empty() || wishes.isForced)
                take(lan, link->name, "it has the role already");
        }
    }

    void findLan() {
        for (const Link& link : machine.links)
            if (mayBeLan(link) && whyNoLan(link).empty())
                take(lan, link.name, "its network " + networksOf(link) + " is private");
        if (lan.empty()) findLanToTry();
    }

    bool mayBeLan(const Link& link) const {
        return !isIn(wishes.wan, link.name) && !hasItem(link.name, Role::external);
    }

    /// Networks for documentation are those of a router that is only tried, and of its uplinks as well.
    void findLanToTry() {
        std::vector<const Link*> found;
        for (const Link& link : machine.links)
            if (mayBeLan(link) && whyNoHosts(link).empty() && hasOnlyDocumentation(link))
                found.push_back(&link);
        const std::string others = found.size() > 1 ? "; --lan NAME leaves others out" : "";
        for (const Link* link : found)
            take(lan, link->name,
                 "no LAN is private, and " + addressesOf(*link).front().network.text() +
                     " is for documentation" + others);
    }

    bool hasOnlyDocumentation(const Link& link) const {
        const std::vector<Address> addresses = addressesOf(link);
        return !addresses.empty() && std::all_of(addresses.begin(), addresses.end(), [](const Address& a) {
            return !a.isLeased && machine::reachOf(a.network.address) == machine::Reach::reserved;
        });
    }

    bool hasItem(const std::string& name, Role role) const {
        return std::any_of(present.items.begin(), present.items.end(),
                           [&](const Item& item) { return item.interface == name && item.role == role; });
    }

    /// Why an interface is not taken for a LAN; empty when it is.
    std::string whyNoLan(const Link& link) const {
        if (std::string why = whyNoHosts(link); !why.empty()) return why;
        std::string why = "it has no address";
        for (const Address& address : addressesOf(link))
            if (why = setup::whyNoLan(address); why.empty()) return why;
        return why;
    }

    /// Why no hosts of a LAN are expected at an interface, whatever its addresses are.
    std::string whyNoHosts(const Link& link) const {
        if (const Link& owner = ownerOf(machine, link); &owner != &link)
            return "it is a member of " + owner.name;
        if (isTunnel(link)) return "it is a tunnel";
        if (std::string outside = uplinks.whyOutside(link.name); !outside.empty()) return outside;
        if (link.type != "ether") return "it is no network of hosts";
        if (isOfContainers(link.name)) return "it is a network of containers or virtual machines";
        if (uplinks.isFallback(link.name)) return "it carries a default route that is not the best one";
        return link.isUp ? "" : "it is down";
    }

    std::vector<Address> addressesOf(const Link& link) const {
        std::vector<Address> found;
        for (const Address& address : machine.addresses)
            if (address.interface == link.name && address.scope == "global") found.push_back(address);
        return found;
    }

    std::string networksOf(const Link& link) const {
        Names networks;
        for (const Address& address : addressesOf(link))
            if (setup::whyNoLan(address).empty()) addOnce(networks, address.network.text());
        return joined(networks);
    }

    void chooseWan() {
        for (const std::string& name : wishes.wan) take(wan, name, "named with --wan");
        if (!wishes.wan.empty()) return;
        for (const std::string& name : uplinks.used())
            if (const Link* link = owner(name)) takeWan(link->name, "it carries the default route");
        for (const Item& item : present.items)
            if (const Link* link = owner(item.interface); link && item.role == Role::external)
                takeWan(link->name, "it has the role already");
    }

    void takeWan(const std::string& name, const std::string& why) {
        if (!has(lan, name)) take(wan, name, why);
    }

    tk::Status checkChoice() const {
        if (wan.empty()) return tk::Status::failure(whyNoUplink() + ", or name it with --wan NAME");
        if (!lan.empty()) return {};
        std::string found;
        for (const Choice& choice : leftOut()) found += "; " + choice.interface + ": " + choice.why;
        return tk::Status::failure("no LAN is found: no interface has a network of private addresses" +
                                   found +
                                   "; give the LAN's interface its address, or name it with --lan NAME");
    }

    std::string whyNoUplink() const {
        for (const machine::Route& route : machine.routes)
            if (route.isDefault() && uplinks.used().empty())
                return "the default route leads through the tunnel " + route.device +
                       " alone, so the uplink cannot be told: bring it up";
        if (uplinks.used().empty()) return "there is no default route, so there is no uplink: bring it up";
        return "no uplink is left beside the LAN: bring one up";
    }

    /// Interfaces with an address or an item and no role.
    std::vector<Choice> leftOut() const {
        std::vector<Choice> list;
        for (const Link& link : machine.links) {
            if (link.type == "loopback" || has(lan, link.name) || has(wan, link.name)) continue;
            const bool hasAny = hasItem(link.name, Role::internal) || hasItem(link.name, Role::external);
            if (!hasAny && addressesOf(link).empty()) continue;
            const std::string why = whyNoLan(link);
            list.push_back({link.name, Role::none, why.empty() ? whyNotNamed() : why});
        }
        return list;
    }

    std::string whyNotNamed() const {
        return wishes.lan.empty() ? "[lan] interfaces does not name it" : "it is not named with --lan";
    }

    static bool has(const std::vector<Choice>& list, const std::string& name) {
        return std::any_of(list.begin(), list.end(), [&](const Choice& c) { return c.interface == name; });
    }

    /// Appends an interface that is not in the list yet.
    static void take(std::vector<Choice>& list, const std::string& name, const std::string& why) {
        if (!has(list, name)) list.push_back({name, Role::none, why});
    }

    Proposal proposal() {
        Proposal made;
        for (Choice& choice : lan) {
            choice.role = Role::internal;
            made.roles.push_back(choice);
        }
        for (Choice& choice : wan) {
            choice.role = Role::external;
            made.roles.push_back(choice);
        }
        made.leftOut = leftOut();
        made.lanInterfaces = lanInterfaces();
        return made;
    }

    /// In the order of the file; what it names and is absent stays named.
    Names lanInterfaces() const {
        Names list;
        for (const std::string& name : present.lanInterfaces.value_or(Names()))
            if (has(lan, name) || isIn(absent, name)) addOnce(list, name);
        for (const Choice& choice : lan) addOnce(list, choice.interface);
        return list;
    }

    const Links& machine;
    const Present& present;
    const Wishes& wishes;
    const Uplinks uplinks;
    std::vector<Choice> lan;
    std::vector<Choice> wan;
    Names absent;  // named in the file
};

}  // namespace

tk::Result<Proposal> propose(const Links& machine, const Present& present, const Wishes& wishes) {
    return Proposer(machine, present, wishes).propose();
}

std::vector<ItemChange> itemChanges(const std::vector<Item>& items, const Proposal& proposal) {
    std::vector<ItemChange> removals;
    std::vector<ItemChange> others;
    const auto itemOf = [&](const std::string& name) {
        return std::find_if(items.begin(), items.end(),
                            [&](const Item& item) { return item.interface == name; });
    };
    for (const Item& item : items) {
        const bool stays = std::any_of(proposal.roles.begin(), proposal.roles.end(),
                                       [&](const Choice& c) { return c.interface == item.interface; });
        if (!stays && !item.interface.empty())
            removals.push_back({ItemChange::Kind::remove, item.id, item.interface, item.role});
    }
    for (const Choice& choice : proposal.roles) {
        const auto item = itemOf(choice.interface);
        if (item == items.end())
            others.push_back({ItemChange::Kind::add, 0, choice.interface, choice.role});
        else if (item->role != choice.role)
            others.push_back({ItemChange::Kind::change, item->id, choice.interface, choice.role});
    }
    removals.insert(removals.end(), others.begin(), others.end());
    return removals;
}

std::string describe(const ItemChange& change) {
    const std::string role = roleName(change.role);
    switch (change.kind) {
        case ItemChange::Kind::add:
            return "add " + change.interface + " as " + role;
        case ItemChange::Kind::change:
            return "change " + change.interface + " to " + role;
        case ItemChange::Kind::remove:
            return "remove " + change.interface + " (" + role + ")";
    }
    return {};
}

}  // namespace setup
