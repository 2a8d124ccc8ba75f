#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "fuzz/gateway/world.h"

namespace fuzz {

/// Plays one input to a world, step by step, and has the world checked after each.
class Player {
public:
    /// Lifetime: the world and the input outlive the player.
    Player(World& world, std::string_view input) : world(world), rest(input) {}

    /// Plays all steps. Call once.
    void play();
    /// True when a step asked for a change of what the daemon stores.
    bool hasConfigured() const { return configured; }

private:
    struct Step {
        char letter;
        void (Player::*take)();
    };

    // What the steps read. At the end of the input all numbers are 0 and all texts empty.
    unsigned number(unsigned limit);
    std::string text();
    std::uint32_t host();
    std::uint32_t interface() { return number(World::interfaceLimit); }
    std::string address();
    const std::string* argument();
    Link* chosen(const std::vector<Link*>& links);

    // The steps, in the order of the table in gateway.cpp.
    void connect();
    void connectOften();
    void sendBytes();
    void endSide();
    void reset();
    void narrow();
    void get();
    void callAction();
    void subscribe();
    void subscribeOften();
    void renew();
    void unsubscribe();
    void nameSubscription(const std::string& method, const std::string& more);
    void datagram();
    void search();
    void changeInterface();
    void changeAddress();
    void changeState();
    void announceWalk();
    void changeReplies();
    void passTime();
    void changeSettings();
    void addItem();
    void setItem();
    void removeItem();
    void list();
    void changePeers();
    void movePeer();
    void endQuestion();
    void failCall();
    void reverse();
    void restart();

    /// Sends a request on a connection of its own, in pieces, which the daemon gets one by one. Null when nobody listens.
    Link* visit(std::uint32_t interface, const std::string& request);
    /// True when the request on this connection has been granted.
    static bool isGranted(const Link* link);
    tk::message item();

    World& world;
    std::string_view rest;
    std::string value;  // of the last argument
    bool configured = false;
    int stepsLeft = 100;  // a limit, so that each input is cheap
};

}  // namespace fuzz
