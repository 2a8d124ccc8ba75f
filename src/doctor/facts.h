#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "contract/gateway.h"
#include "contract/interfaces.h"
#include "doctor/packet.h"
#include "doctor/ruleset.h"
#include "machine/links.h"

/// What is the case on this router. The facts are collected first and judged afterwards, so that they can be
/// judged without a router.
namespace doctor {

/// An interface that has a role, or could have one. A value.
struct InterfaceFact {
    std::uint32_t id = 0;
    std::string name;
    contract::SideReply side;

    bool operator==(const InterfaceFact&) const = default;
};

/// One "upnp interface" item. A value.
struct RoleFact {
    std::uint32_t id = 0;
    std::uint32_t interface = 0;
    std::string name;  // of the interface; empty: it is absent
    contract::Role role = contract::Role::none;
    bool isDisabled = false;

    bool operator==(const RoleFact&) const = default;
};

/// A program on the bus. A value.
struct ProgramFact {
    std::uint32_t number = 0;
    std::uint32_t pid = 0;
    std::uint32_t user = 0;
    std::string version;  // empty: it could not be read

    bool operator==(const ProgramFact&) const = default;
};

/// What the router's programs tell. A value.
struct BusFacts {
    bool routerAnswers = false;
    bool mayAsk = true;         // false: only the right to ask is missing
    std::string routerSilence;  // a sentence that says why not, without its full stop
    std::string rulesSilence;   // why the rules could not be read; empty when they were
    bool daemonAnswers = false;
    std::string daemonSilence;
    std::string daemonRefusal;  // why this user may not ask it; empty otherwise
    contract::Settings settings;
    std::vector<InterfaceFact> interfaces;
    std::vector<RoleFact> roles;
    std::vector<MappedFlow> flows;      // of the enabled rules; the interfaces are left empty
    std::uint64_t mappedPackets = 0;    // that used them
    std::vector<ProgramFact> programs;  // empty when nobody tells
    std::string ownVersion;             // of this tkctl
};

/// A socket that waits at one of the gateway's ports. A value.
struct SocketFact {
    bool isTcp = false;
    std::string device;   // that it is bound to; empty: any
    std::string address;  // that it is bound to; "0.0.0.0" or "*": any
    std::string program;  // empty: not known
    std::uint32_t pid = 0;

    bool operator==(const SocketFact&) const = default;
};

/// A bridge that looks into multicast. A value.
struct BridgeFact {
    std::string name;
    bool isSnooping = false;
    bool isQuerier = false;
    bool hasOtherQuerier = false;

    bool operator==(const BridgeFact&) const = default;
};

/// The kernel's settings for one interface. A value.
struct InterfaceSettings {
    bool forwards = true;
    int reversePathFilter = 0;

    bool operator==(const InterfaceSettings&) const = default;
};

/// How answers to a host of the Internet leave. A value.
struct AnswerRoute {
    std::string external;  // the interface that the request came by
    std::string leavesBy;  // empty: no way out

    bool operator==(const AnswerRoute&) const = default;
};

/// Another gateway in the LAN. A value.
struct OtherGateway {
    std::string interface;
    std::string address;
    std::string server;  // what it calls itself

    bool operator==(const OtherGateway&) const = default;
};

/// A folder that a program stores in. A value.
struct StoreFact {
    std::string folder;
    std::uint32_t program = 0;
    bool exists = false;
    std::uint32_t owner = 0;
    bool ownerMayWrite = false;
    bool isReadOnly = false;  // its file system is
    std::uint64_t freeBytes = 0;
    std::vector<std::string> damaged;  // files that were kept aside
    std::int64_t newest = 0;           // when the newest file was written, in seconds since 1970

    bool operator==(const StoreFact&) const = default;
};

/// What router.toml says, as far as it matters here. A value.
struct ConfigFacts {
    std::string path;
    std::vector<std::string> terminable;  // interfaces with terminate
    std::string fault;    // why routerd would not start with it; empty when it would, or nobody can tell
    std::string command;  // that checks it

    bool operator==(const ConfigFacts&) const = default;
};

/// What could not be looked at. A value.
struct Unseen {
    std::string what;
    std::string why;
    std::string mend;

    bool operator==(const Unseen&) const = default;
};

/// What the machine tells. A value.
struct MachineFacts {
    machine::Links links;
    bool forwards = true;
    std::map<std::string, InterfaceSettings> settings;  // by interface
    bool marksChooseRoutes = false;  // some policy rule looks at marks: the way of answers may depend on them
    std::vector<AnswerRoute> answers;
    std::vector<Table> tables;
    std::string iptablesTool;  // the name of the tool that writes to the kernel as iptablesNft does
    std::optional<std::vector<std::uint32_t>> guardedUsers;  // none: the guard's table could not be read
    std::vector<SocketFact> sockets;
    std::vector<BridgeFact> bridges;
    std::vector<OtherGateway> gateways;
    std::vector<StoreFact> stores;
    bool hasFolderRules = false;  // systemd runs, and the package told it which stores there are
    bool hasSystemd = false;
    std::string programFolder;  // where the router's programs are
    ConfigFacts config;
    std::int64_t now = 0;         // seconds since 1970
    std::int64_t builtAfter = 0;  // a time that has certainly passed
    std::vector<Unseen> unseen;
};

/// Everything that is judged. A value.
struct Facts {
    BusFacts bus;
    MachineFacts machine;

    /// The enabled roles of one kind whose interface is there.
    [[nodiscard]] std::vector<RoleFact> rolesOf(contract::Role role) const;
    /// The program with a number; null when it is not on the bus, or nobody tells.
    [[nodiscard]] const ProgramFact* program(std::uint32_t number) const;
    /// The IPv4 addresses of an interface that can be reached from other hosts.
    [[nodiscard]] std::vector<machine::Address> addressesOf(const std::string& interface) const;
    /// The connections that the chains are tried with: those of the mappings; without any, made-up ones from
    /// each external to each internal interface.
    [[nodiscard]] std::vector<MappedFlow> flowsToTry() const;
};

}  // namespace doctor
