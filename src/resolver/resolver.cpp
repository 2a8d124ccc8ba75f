#include "resolver/resolver.h"

#include <utility>

#include "contract/resolver.h"
#include "resolver/hostname.h"
#include "tk/bus.h"
#include "tk/looper.h"
#include "tk/names.h"

namespace resolver {

namespace {

tk::message messageOf(const Answer& answer) {
    if (answer.address == 0) return tk::errorMsg(answer.errorCode, answer.errorText);
    tk::message reply;
    reply.insert_be32(contract::resolvefield::address, answer.address);
    return reply;
}

}  // namespace

Resolver::Resolver(Settings given) : settings(std::move(given)), files(settings.files) {
    startIdleTime();
}

tk::message Resolver::cmdUnknown(const tk::message& received, std::uint32_t command) {
    if (command != contract::resolveName) return tk::errorMsg(tk::error::noSuchCommand, "no such command");
    return resolve(received);
}

tk::message Resolver::resolve(const tk::message& request) {
    if (pending.empty()) startIdleTime();
    const std::string given = request.get_string(contract::resolvefield::name);
    if (!isHostName(given)) return tk::errorMsg(tk::error::invalid, "not a host name");
    if (files.changed()) cache.clear();
    const std::string name = lowerCase(given);
    if (const Answer* known = cache.find(name, tk::getRunner()->now())) return messageOf(*known);
    return lookUp(name, request);
}

tk::message Resolver::lookUp(const std::string& name, const tk::message& request) {
    if (const auto same = pending.find(name); same != pending.end()) {
        if (same->second.requests.size() >= waitingLimit)
            return tk::errorMsg(tk::error::busy, "too many requests wait for this name");
        same->second.requests.push_back(tk::routingOf(request));
        return answerLater();
    }
    if (pending.size() >= lookupLimit)
        return tk::errorMsg(tk::error::busy, "too many names are being looked up");
    idleTime.disarm();
    Pending& added = pending[name];
    added.requests.push_back(tk::routingOf(request));
    Lookup::Owner& owner = *this;
    added.lookup = std::make_unique<Lookup>(name, settings.servers, owner);
    added.lookup->start();  // the lookup may be gone when this returns
    return answerLater();
}

void Resolver::lookupEnded(const std::string& name, const Answer& answer) {
    const auto ended = pending.extract(name);  // the lookup is destroyed at the end of the function
    if (files.changed())
        cache.clear();  // this answer may come from the old files
    else
        cache.insert(name, answer, tk::getRunner()->now());
    for (const tk::message& request : ended.mapped().requests) sendAnswer(request, messageOf(answer));
    if (pending.empty()) startIdleTime();
}

void Resolver::startIdleTime() {
    idleTime.arm(hasResigned ? 0 : settings.idleTicks);
}

void Resolver::idleTimeEnds() {
    if (hasResigned) return tk::getLooper()->leave();
    hasResigned = tk::getLooper()->resign();
    // At once, but after what was asked meanwhile; or the usual time, if the hub did not answer.
    startIdleTime();
}

}  // namespace resolver
