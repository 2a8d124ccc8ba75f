#include "resolver/lookup.h"

#include <netinet/in.h>
#include <sys/time.h>

#include <algorithm>
#include <utility>

#include "tk/names.h"
#include "tk/runner.h"

namespace resolver {

namespace {

// After this time the same server is asked again, or the next one.
constexpr int tryMilliseconds = 300;
constexpr int tries = 3;

/// The first address of a result.
/// Byte order: network.
/// Errors: 0, which is no host's address.
std::uint32_t firstAddress(const ares_addrinfo& result) {
    for (const ares_addrinfo_node* node = result.nodes; node; node = node->ai_next) {
        if (node->ai_family != AF_INET) continue;
        const std::uint32_t address = reinterpret_cast<const sockaddr_in*>(node->ai_addr)->sin_addr.s_addr;
        if (address != INADDR_ANY) return address;
    }
    return INADDR_ANY;
}

/// The shortest lifetime of the records that led to the address; 0 for one from the hosts file.
std::uint32_t lifetimeOf(const ares_addrinfo& result) {
    int shortest = static_cast<int>(Lookup::longestLifetime);
    for (const ares_addrinfo_node* node = result.nodes; node; node = node->ai_next)
        shortest = std::min(shortest, node->ai_ttl);
    for (const ares_addrinfo_cname* alias = result.cnames; alias; alias = alias->next)
        shortest = std::min(shortest, alias->ttl);
    return static_cast<std::uint32_t>(std::max(shortest, 0));
}

Answer unknown(const std::string& what, const std::string& name) {
    return {0, Lookup::unknownLifetime, tk::error::noSuchObject, what + ": " + name};
}

Answer failure(const std::string& what, const std::string& name) {
    return {0, Lookup::failureLifetime, tk::error::failed, what + ": " + name};
}

Answer answerOf(int status, const ares_addrinfo* result, const std::string& name) {
    switch (status) {
        case ARES_SUCCESS:
            if (const std::uint32_t address = result ? firstAddress(*result) : INADDR_ANY)
                return {address, lifetimeOf(*result), 0, {}};
            return unknown("the host has no IPv4 address", name);
        case ARES_ENOTFOUND:
            return unknown("unknown host name", name);
        case ARES_ENODATA:
            return unknown("the host has no IPv4 address", name);
        case ARES_ETIMEOUT:
            return failure("the name servers do not answer", name);
        case ARES_ECONNREFUSED:
            return failure("no name server can be reached", name);
        default:
            return failure(std::string("the name servers fail, ") + ares_strerror(status), name);
    }
}

std::uint32_t ticksOf(const timeval& time) {
    const std::int64_t milliseconds = std::int64_t{time.tv_sec} * 1000 + time.tv_usec / 1000;
    const std::int64_t ticks = milliseconds / tk::tickMilliseconds + 1;  // late rather than early
    return static_cast<std::uint32_t>(std::min<std::int64_t>(ticks, Lookup::budgetTicks));
}

}  // namespace

Lookup::Lookup(std::string name, std::string servers, Owner& owner)
    : name(std::move(name)), servers(std::move(servers)), owner(owner) {}

int Lookup::openChannel() {
    ares_options options{};
    options.timeout = tryMilliseconds;
    options.tries = tries;
    options.sock_state_cb = &Lookup::socketChanged;
    options.sock_state_cb_data = this;
    int given = ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES | ARES_OPT_SOCK_STATE_CB;
    if (!servers.empty()) given |= ARES_OPT_DOMAINS;  // none
    ares_channel opened = nullptr;
    const int status = ares_init_options(&opened, &options, given);
    if (status != ARES_SUCCESS) return status;
    channel.reset(opened);
    return servers.empty() ? status : ares_set_servers_ports_csv(channel.get(), servers.c_str());
}

void Lookup::start() {
    if (const int status = openChannel(); status != ARES_SUCCESS) {
        answer = failure(std::string("names cannot be looked up, ") + ares_strerror(status), name);
        return end();  // deletes this
    }
    budgetTimer.arm(budgetTicks);
    ares_addrinfo_hints hints{};
    hints.ai_family = AF_INET;
    hints.ai_flags = ARES_AI_NOSORT;  // sorting would connect a socket to each address
    ares_getaddrinfo(channel.get(), name.c_str(), nullptr, &hints, &Lookup::answered, this);
    proceed();
}

void Lookup::socketChanged(void* lookup, ares_socket_t socket, int wantsRead, int wantsWrite) {
    if (!wantsRead && !wantsWrite) return tk::getRunner()->removeSocket(socket);
    const std::uint32_t events = (wantsRead ? tk::readable : 0) | (wantsWrite ? tk::writable : 0);
    tk::getRunner()->addSocket<Lookup, &Lookup::ready>(socket, static_cast<Lookup*>(lookup), events);
}

/// Only notes the answer: a channel must not be destroyed from within.
void Lookup::answered(void* lookup, int status, int, ares_addrinfo* result) {
    if (status != ARES_EDESTRUCTION) {  // else the lookup itself is being destroyed
        auto& own = *static_cast<Lookup*>(lookup);
        own.hasAnswer = true;
        own.answer = answerOf(status, result, own.name);
    }
    ares_freeaddrinfo(result);
}

void Lookup::ready(int socket, std::uint32_t events) {
    process((events & tk::readable) ? socket : ARES_SOCKET_BAD,
            (events & tk::writable) ? socket : ARES_SOCKET_BAD);
}

void Lookup::retry() {
    process(ARES_SOCKET_BAD, ARES_SOCKET_BAD);
}

void Lookup::process(ares_socket_t readableSocket, ares_socket_t writableSocket) {
    ares_process_fd(channel.get(), readableSocket, writableSocket);
    proceed();  // may delete this
}

/// Waits as the channel asks, or ends the lookup.
void Lookup::proceed() {
    if (hasAnswer) return end();  // deletes this
    timeval wait{};
    if (const timeval* next = ares_timeout(channel.get(), nullptr, &wait)) retryTimer.arm(ticksOf(*next));
}

void Lookup::expired() {
    answer = failure("the name servers do not answer in time", name);
    end();  // deletes this
}

/// Tells the owner the noted answer.
void Lookup::end() {
    const std::string ownName = name;  // a copy: the lookup, its name and its answer go first
    const Answer given = std::move(answer);
    owner.lookupEnded(ownName, given);  // deletes this
}

}  // namespace resolver
