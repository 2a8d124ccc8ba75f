// Requests for events, and what becomes of them. NUL separates the steps of an input. A step is a SUBSCRIBE
// or an UNSUBSCRIBE in the form of HTTP, or a letter: A with the address that the resolver gives to the
// client that has waited longest, E for its error, D when that client leaves, T with a number of seconds that
// pass, F for a flood of subscribers when there are none. After each step the subscriptions are those of a
// simple model, no two of one address and at most 100, and each timer has an owner.
#include <uuid/uuid.h>

#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "contract/programs.h"
#include "contract/resolver.h"
#include "fuzz/target.h"
#include "net/convert.h"
#include "tk/log.h"
#include "tk/names.h"
#include "tk/testing/privatenetwork.h"
#include "tk/testing/testloop.h"
#include "upnp/event.h"
#include "upnp/testing/fakeclient.h"

namespace {

using gateway::FakeClient;
using gateway::HTTPMessage;

constexpr std::size_t stepLimit = 16;  // of an input
constexpr std::size_t subscriptionLimit = 100;
constexpr std::uint32_t shortestSeconds = 1800;
constexpr std::uint32_t longestSeconds = 86400;
constexpr std::size_t waitLimit = 3;            // clients that may wait at once
constexpr std::uint32_t longestPause = 100000;  // seconds
constexpr std::uint32_t ticksPerSecond = 100;

std::uint16_t uuids = 0;  // made for this input

/// The seconds that a value of TIMEOUT is granted.
std::uint32_t secondsFor(const std::string& timeout) {
    if (!timeout.starts_with("Second-")) return shortestSeconds;
    if (timeout == "Second-infinite") return longestSeconds;
    const std::int32_t wanted = gateway::toInt(timeout.substr(7));
    if (wanted < 0) return longestSeconds;
    return std::clamp(static_cast<std::uint32_t>(wanted), shortestSeconds, longestSeconds);
}

/// A service, its clients, and what its subscriptions should be.
class World {
public:
    World() { loop.bus.keepSilent({contract::program::resolver}, contract::resolveName); }

    void step(const std::string& text) {
        const HTTPMessage request(text);
        const std::string method = gateway::methodOf(request.title);
        if (method == "SUBSCRIBE")
            subscribe(request);
        else if (method == "UNSUBSCRIBE")
            unsubscribe(request);
        else
            event(text.front(), text.substr(1));
        loop.looper.turn(0);
        check();
    }

private:
    struct Waiting {
        std::unique_ptr<FakeClient> client;
        std::uint32_t number = 0;  // of the request to the resolver
        std::uint32_t seconds = 0;
    };

    void subscribe(const HTTPMessage& request) {
        auto client = std::make_unique<FakeClient>();
        client->mayBeKept = waiting.size() < waitLimit;
        client->take(service.subscribe(request, *client));
        const std::uint32_t seconds = secondsFor(request.get("TIMEOUT"));
        if (client->wait)
            waiting.push_back({std::move(client), loop.bus.asked.back(), seconds});
        else
            take(*client, seconds);
    }
    void unsubscribe(const HTTPMessage& request) {
        FakeClient client;
        client.take(service.unsubscribe(request, client));
        const bool isKnown = expiry.erase(request.get("SID")) > 0;
        fuzz::require(client.answered->toString() == HTTPMessage(isKnown ? 200 : 412).toString(),
                      "a subscription that there is can be ended");
    }
    /// Takes every place there is, without the cost of that many requests.
    void flood() {
        for (unsigned host = 0; host < subscriptionLimit; ++host) {
            const std::string sid = "uuid:" + gateway::toString(host);
            const std::uint32_t address = gateway::toAddress("127.9.9." + gateway::toString(host));
            auto& subscription = service.subscriptions[sid];
            subscription = std::make_unique<gateway::Subscription>(service, sid, address, 9, "/");
            subscription->expireIn(shortestSeconds);
            expiry[sid] = now + std::uint64_t{shortestSeconds} * ticksPerSecond;
        }
    }
    void event(char kind, const std::string& value) {
        if (kind == 'F' && expiry.empty()) flood();
        if (kind == 'T') pass(std::min(gateway::toUnsigned(value), longestPause) * ticksPerSecond);
        if (waiting.empty()) return;
        tk::message end;
        if (kind == 'A') end.insert_be32(contract::resolvefield::address, gateway::toAddress(value));
        if (kind == 'E') end = tk::errorMsg(tk::error::failed, value);
        if (kind == 'A' || kind == 'E') loop.end(waiting.front().number, end);
        if (kind == 'D') waiting.pop_front();
        takeAnswers();
    }
    void pass(std::uint32_t ticks) {
        loop.advance(ticks);
        now += ticks;
        std::erase_if(expiry, [this](const auto& entry) { return entry.second <= now; });
    }
    void takeAnswers() {
        std::erase_if(waiting, [this](const Waiting& each) {
            if (!each.client->answered) return false;
            take(*each.client, each.seconds);
            return true;
        });
    }
    void take(const FakeClient& client, std::uint32_t seconds) {
        fuzz::require(client.answered && !client.wait, "a client is answered, and waits no longer");
        const HTTPMessage& answer = *client.answered;
        if (answer.title != "HTTP/1.1 200 OK")
            return fuzz::require(answer.toString() == HTTPMessage(412).toString() ||
                                     answer.toString() == HTTPMessage(500).toString(),
                                 "a refusal is bare");
        fuzz::require(answer.get("TIMEOUT") == "Second-" + gateway::toString(seconds),
                      "the time that is granted");
        expiry[answer.get("SID")] = now + std::uint64_t{seconds} * ticksPerSecond;
    }
    void check() {
        std::set<std::uint32_t> addresses;
        fuzz::require(service.subscriptions.size() == expiry.size(),
                      "as many subscriptions as there should be");
        for (const auto& [sid, subscription] : service.subscriptions) {
            fuzz::require(expiry.contains(sid), "a subscription that there should be");
            fuzz::require(addresses.insert(subscription->address).second, "one subscription of an address");
        }
        fuzz::require(expiry.size() <= subscriptionLimit, "the limit on subscriptions");
        const tk::Runner& runner = loop.looper.runner();
        fuzz::require(runner.timerCount() == expiry.size() + waiting.size() + service.events.size(),
                      "each timer's owner");
        fuzz::require(runner.socketCount() == idleSockets + service.events.size(), "each socket's owner");
    }

    tk::testing::TestLoop loop;
    const std::size_t idleSockets = loop.looper.runner().socketCount();
    gateway::Service service{"urn:x"};
    std::deque<Waiting> waiting;
    std::map<std::string, std::uint64_t> expiry;  // of the model's subscriptions, in ticks
    std::uint64_t now = 0;
};

}  // namespace

/// In place of the library's: the n-th UUID of an input ends in n, so that an input can name it.
extern "C" void uuid_generate(uuid_t out) {
    std::fill_n(out, sizeof(uuid_t), static_cast<unsigned char>(0));
    ++uuids;
    out[sizeof(uuid_t) - 2] = static_cast<unsigned char>(uuids >> 8);
    out[sizeof(uuid_t) - 1] = static_cast<unsigned char>(uuids & 0xFF);
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool isApart = tk::testing::enterPrivateNetwork();
    fuzz::require(isApart, "needs root, for a network of its own");
    const tk::LogBatch quiet;
    const int next = fuzz::nextDescriptor();
    uuids = 0;
    {
        World world;
        std::string_view rest = fuzz::text(data, size);
        for (std::size_t steps = 0; steps < stepLimit && !rest.empty(); ++steps) {
            const std::string text(rest.substr(0, rest.find('\0')));
            rest.remove_prefix(std::min(text.size() + 1, rest.size()));
            if (!text.empty()) world.step(text);
        }
    }
    fuzz::require(fuzz::nextDescriptor() == next, "every descriptor is given back");
    return 0;
}
