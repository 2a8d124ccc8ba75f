#include "fuzz/gateway/player.h"

#include <arpa/inet.h>

#include <iterator>

#include "contract/addresses.h"
#include "contract/interfaces.h"
#include "contract/programs.h"
#include "contract/resolver.h"
#include "tk/names.h"
#include "tracking/testing/recordmakers.h"

namespace fuzz {

void Player::changeInterface() {
    const std::uint32_t id = script.interface();
    tk::message record = gateway::interfaceRecord(id, World::nameOf(id), "a name\x1b[0m");
    switch (script.number(6)) {
        case 0:
            world.router.interfaces[id] = record;
            break;
        case 1:
        case 2:
            record.insert_u32(contract::interfacefield::flags, id % 2 == 0 ? 0x80 : 0x02);
            world.router.interfaces.erase(id);
            break;
        case 3:
            record = {};
            record.insert_u32(tk::field::objectId, id);
            break;
        case 4:
            record.insert_string(contract::interfacefield::flags, "2");
            record.insert_u32(contract::interfacefield::name, 1);
            break;
        case 5:
            record.insert_string(contract::interfacefield::name,
                                 "an interface with a name that is far too long");
            break;
        default:
            break;
    }
    world.notify(contract::path::interfaces(), contract::interfaceChanged, record);
}

void Player::changeAddress() {
    const std::uint32_t id = script.number(36);
    const std::uint32_t of = script.interface();
    tk::message record = gateway::addressRecord(id, script.address(), of);
    world.router.addresses[id] = record;
    switch (script.number(6)) {
        case 1:
            record.insert_u32(tk::field::deleted, 1);
            world.router.addresses.erase(id);
            break;
        case 2:
            record.insert_bool(tk::field::disabled, true);
            break;
        case 3:
            record.remove(contract::addressfield::address);
            break;
        case 4:
            record.insert_string(contract::addressfield::address, "192.168.1.1");
            record.insert_string(contract::addressfield::interface, "1");
            break;
        case 5:
            record.remove(contract::addressfield::interface);
            record.insert_u32(contract::addressfield::actualInterface, of);
            break;
        default:
            break;
    }
    world.notify(contract::path::addresses(), tk::command::objectsChanged,
                 gateway::carrying({record, record}));
}

void Player::changeState() {
    const std::uint32_t id = script.interface();
    const unsigned bits = script.number(8);
    tk::message record = gateway::statusRecord(id, (bits & 1) != 0, (bits & 2) != 0);
    if (bits & 4) record.remove(tk::field::disabled);
    world.router.states[id] = record;
    world.notify(contract::path::interfaces(), tk::command::objectsChanged, gateway::carrying({record}));
}

/// A notification without records makes the daemon read them all.
void Player::announceWalk() {
    const tk::Path from[] = {
        contract::path::interfaces(), contract::path::addresses(), contract::path::nat(), {}};
    world.notify(from[script.number(std::size(from))], tk::command::objectsChanged, {});
}

void Player::changeReplies() {
    const auto question = static_cast<Question>(script.number(static_cast<unsigned>(Question::count)));
    world.router.end(question, static_cast<Reply>(script.number(static_cast<unsigned>(Reply::count))));
}

void Player::endQuestion() {
    const std::vector<std::uint32_t>& asked = world.bus.asked;
    const unsigned place = script.number(36);
    tk::message end;
    switch (script.number(5)) {
        case 0:
            end.insert_be32(contract::resolvefield::address, htonl(0xC0A80114));
            break;
        case 1:
            end = tk::errorMsg(tk::error::failed, "no such\nname");
            break;
        case 2:
            end.insert_string(contract::resolvefield::address, "192.168.1.20");
            break;
        case 3:
            end = tk::errorMsg(tk::error::failed, "and yet");
            end.insert_be32(contract::resolvefield::address, htonl(0xC0A80115));
            break;
        default:
            break;
    }
    const std::uint32_t number = asked.empty() ? place : asked[asked.size() - 1 - place % asked.size()];
    world.endQuestion(number, end);  // perhaps once more, or after nobody waits for it
}

}  // namespace fuzz
