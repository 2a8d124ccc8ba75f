#pragma once

#include <string>
#include <string_view>

#include "fuzz/gateway/script.h"
#include "fuzz/gateway/world.h"

namespace fuzz {

/// Plays one input to a world, step by step, and has the world checked after each.
class Player {
public:
    /// Lifetime: the world and the input outlive the player.
    Player(World& world, std::string_view input) : world(world), script(input) {}

    /// Plays all steps. Call once.
    void play();
    /// True when a step asked for a change of what the daemon stores.
    bool hasConfigured() const { return configured; }

private:
    struct Step {
        char letter;
        void (Player::*take)();
    };

    // Hosts.
    void connect();
    void connectOften();
    void sendBytes();
    void endSide();
    void reset();
    void narrow();
    void get();
    void callAction();
    void datagram();
    void search();
    /// Sends a request on a connection of its own, in pieces, which the daemon gets one by one. Null when nobody listens.
    Link* visit(std::uint32_t interface, const std::string& request);
    /// True when the request on this connection has been granted.
    static bool isGranted(const Link* link);

    // Subscribers.
    void subscribe();
    void subscribeOften();
    void renew();
    void unsubscribe();
    void changePeers();
    void movePeer();
    std::string eventPath();
    void nameSubscription(const std::string& method, const std::string& more);

    // The router and the resolver.
    void changeInterface();
    void changeAddress();
    void changeState();
    void announceWalk();
    void changeReplies();
    void endQuestion();

    // The administrator.
    void changeSettings();
    void addItem();
    void setItem();
    void removeItem();
    void list();
    void restart();
    tk::message item();

    // Time and the kernel.
    void passTime();
    void failCall();
    void reverse();

    static constexpr int floodSteps = 10;  // that a flood counts for

    World& world;
    Script script;
    bool configured = false;
    int stepsLeft = 100;  // a limit, so that each input is cheap
};

}  // namespace fuzz
