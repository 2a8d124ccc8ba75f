#include "doctor/collect.h"

#include <arpa/inet.h>
#include <errno.h>
#include <unistd.h>

#include "doctor/search.h"
#include "machine/tool.h"
#include "tk/file.h"

namespace doctor {

namespace {

/// Where to ask for other gateways: the addresses of the internal interfaces.
std::vector<SearchPlace> placesToSearch(const BusFacts& bus, const machine::Links& links) {
    std::vector<SearchPlace> places;
    for (const RoleFact& role : bus.roles) {
        if (role.role != contract::Role::internal || role.isDisabled) continue;
        const machine::Link* link = links.find(role.name);
        for (const machine::Address& address : links.addresses)
            if (link && address.interface == role.name)
                places.push_back({role.name, link->index, address.address});
    }
    return places;
}

}  // namespace

MachineFacts lookAtMachine(const BusFacts& bus, bool searches) {
    MachineFacts machine;
    if (::geteuid() != 0)
        machine.unseen.push_back({"the packet filter, the holders of ports and the programs' versions",
                                  "only root may look at them", "sudo tkctl doctor"});
    auto links = machine::readLinks();
    if (links.isOk())
        machine.links = links.take();
    else
        machine.unseen.push_back(unseenBy(links.status(), "interfaces, addresses and routes", "iproute2"));
    GatewaySearch search(searches ? placesToSearch(bus, machine.links) : std::vector<SearchPlace>());
    lookAtRules(machine);
    lookAtForwarding(bus, machine);
    lookAtSockets(machine);
    lookAtBridges(machine);
    lookAtFiles(bus, machine);
    machine.gateways = search.finish(machine.links.addresses);
    return machine;
}

Unseen unseenBy(const tk::Status& failure, const std::string& what, const std::string& package) {
    return {what, failure.reason(), failure.code() == ENOENT ? "apt install " + package : ""};
}

std::string versionOfProcess(std::uint32_t pid) {
    constexpr std::size_t largest = std::size_t{256} * 1024 * 1024;
    constexpr std::string_view mark = "@(#)gateway ";
    constexpr std::size_t longest = 64;
    const auto program = tk::readFile("/proc/" + std::to_string(pid) + "/exe", largest);
    if (!program.isOk()) return {};
    // The first mark may be the one that a program like this looks for: it has no version behind it.
    for (std::size_t at = program->find(mark); at != std::string::npos; at = program->find(mark, at + 1)) {
        const std::size_t start = at + mark.size(), end = program->find('\0', start);
        if (end != std::string::npos && end > start && end - start <= longest)
            return program->substr(start, end - start);
    }
    return {};
}

}  // namespace doctor
