#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/hub/model.h"
#include "hub/budgets.h"
#include "hub/hub.h"
#include "hub/testing/testhub.h"
#include "tk/budget.h"
#include "tk/handler.h"
#include "tk/message.h"

namespace fuzz {

/// A hub with two handlers of its own at {20, 0} and {20, 5}, its peers, and the model that says what has to
/// happen. Each verb is a step: when it returns, hub and model agree on everything that can be seen.
class HubWorld final : private hub::Starter, private hub::ProgramWatcher, private hub::Reloader {
public:
    /// A user whose account can be filled. It is neither a program nor a tracer.
    static constexpr uid_t poorUser = 73;

    HubWorld();
    HubWorld(const HubWorld&) = delete;
    HubWorld& operator=(const HubWorld&) = delete;
    ~HubWorld() override;

    std::size_t peerCount() const { return model.peers.size(); }
    bool isOpen(std::size_t peer) const { return model.peers[peer].isOpen; }
    bool isPoor() const { return !filling.empty(); }

    void connect(uid_t user);
    void leave(std::size_t peer);
    /// The peer writes bytes. Of a frame that is not whole the rest is expected later.
    void write(std::size_t peer, std::string_view bytes);
    /// The peer reads all there is, and gets what the model says and nothing else.
    void read(std::size_t peer);
    /// The requests that the peer has read.
    const std::vector<tk::message>& requestsOf(std::size_t peer) const { return actors[peer].requests; }
    /// A handler of the hub's process sends a request or a notification.
    void post(const tk::message& stamped);
    /// The rights that are in force from now on, and those that a reload by an administrator brings.
    void setTable(const std::vector<hub::UserRights>& table);
    void setNextTable(const std::vector<hub::UserRights>& table) { model.nextTable = table; }
    void programFailed(std::uint32_t program);
    void advance(std::uint32_t ticks);
    /// Leaves room for so many bytes in the poor user's account.
    void leaveRoom(std::size_t bytes);
    /// Gives the poor user its whole account back.
    void empty() { filling.clear(); }
    /// Everybody reads, time passes, and everybody leaves: nothing may remain.
    void finish();

private:
    struct Actor {
        std::unique_ptr<hub::testing::TestClient> client;
        int socket = -1;                 // the client's
        std::vector<tk::message> inbox;  // read, and not compared yet
        std::size_t inboxBytes = 0;      // as they came
        std::vector<tk::message> requests;
    };
    struct Account {
        std::size_t limit = hub::Budgets::userLimit;
        std::size_t kept = 0;  // for its peers, at least
    };
    class Router final : public tk::Handler {
    public:
        explicit Router(HubWorld& world) : world(world) {}
        tk::message handle(const tk::message& received) override;
        tk::message handleReply(const tk::message& end) override;
        tk::message cmdDisconnected(const tk::Path& client) override;

    private:
        HubWorld& world;
    };

    tk::Status start(std::uint32_t program) override;
    void registered(std::uint32_t program) override { registrations.push_back(program); }
    void programComes(std::uint32_t, uid_t) override {}
    void programLeft() override { ++left; }
    tk::Result<std::vector<std::string>> reload(const std::string& asker) override;

    void writeFrame(std::size_t peer, std::string_view bytes);
    bool seesRefusal(std::size_t peer, std::size_t before);
    void fetch(Actor& actor);
    void take(Actor& actor, HubModel::Peer& peer, tk::message arrived);
    void settle();
    void agree();
    void agreeOnOwn();
    std::map<const tk::Budget*, Account> accounts();
    void agreeOnAccounts();
    std::size_t keptFor(std::size_t number) const;

    std::vector<std::uint32_t> registrations;
    std::vector<std::uint32_t> gone;
    std::size_t left = 0;
    std::vector<tk::message> ownEnds;
    Router interfaces{*this};
    Router rules{*this};
    hub::testing::TestHub bus;
    std::size_t socketsAtFirst;
    std::size_t timersAtFirst;
    std::vector<tk::Charge> filling;  // goes before the bus
    HubModel model;
    std::vector<Actor> actors;
};

}  // namespace fuzz
