#include "fuzz/gateway/player.h"

#include <errno.h>

#include <algorithm>
#include <iterator>

namespace fuzz {

void Player::play() {
    static constexpr Step steps[] = {
        {'C', &Player::connect},
        {'M', &Player::connectOften},
        {'s', &Player::sendBytes},
        {'e', &Player::endSide},
        {'x', &Player::reset},
        {'w', &Player::narrow},
        {'G', &Player::get},
        {'A', &Player::callAction},
        {'U', &Player::subscribe},
        {'Y', &Player::subscribeOften},
        {'R', &Player::renew},
        {'V', &Player::unsubscribe},
        {'d', &Player::datagram},
        {'S', &Player::search},
        {'I', &Player::changeInterface},
        {'a', &Player::changeAddress},
        {'t', &Player::changeState},
        {'n', &Player::announceWalk},
        {'B', &Player::changeReplies},
        {'T', &Player::passTime},
        {'E', &Player::changeSettings},
        {'i', &Player::addItem},
        {'j', &Player::setItem},
        {'k', &Player::removeItem},
        {'l', &Player::list},
        {'P', &Player::changePeers},
        {'p', &Player::movePeer},
        {'q', &Player::endQuestion},
        {'F', &Player::failCall},
        {'o', &Player::reverse},
        {'N', &Player::restart},
    };
    while (!script.isOver() && stepsLeft > 0) {
        const char letter = script.letter();
        const auto* const step = std::find_if(std::begin(steps), std::end(steps),
                                              [&](const Step& each) { return each.letter == letter; });
        if (step == std::end(steps)) continue;
        (this->*step->take)();
        world.settle();
        world.check();
        --stepsLeft;
    }
}

void Player::passTime() {
    constexpr std::uint64_t spans[] = {1,     10,    100,   990,     1000,    5999,    6000,
                                       10000, 29990, 30000, 1800000, 3570000, 90000000};
    world.pass(spans[script.number(std::size(spans))]);
}

void Player::failCall() {
    constexpr int errors[] = {EMFILE,  ENOMEM,   EAGAIN,     EINTR, ECONNABORTED,
                              ENOBUFS, ENETDOWN, EADDRINUSE, EPERM, ENODEV};
    const auto call = static_cast<Call>(script.number(static_cast<unsigned>(Call::count)));
    const unsigned after = script.number(16);
    world.network.failOnce(call, after, errors[script.number(std::size(errors))]);
}

void Player::reverse() {
    world.network.isReversed = !world.network.isReversed;
}

}  // namespace fuzz
