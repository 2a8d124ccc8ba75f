#include "fuzz/gateway/player.h"

#include <iterator>

#include "contract/gateway.h"
#include "contract/interfaces.h"
#include "contract/mappings.h"
#include "contract/programs.h"
#include "tk/names.h"

namespace fuzz {

void Player::changeSettings() {
    configured = true;
    const unsigned bits = script.number(16);
    tk::message settings;
    if (!(bits & 8)) settings.insert_bool(contract::settingfield::enabled, (bits & 1) != 0);
    settings.insert_bool(contract::settingfield::allowDisableExternal, (bits & 2) == 0);
    settings.insert_bool(contract::settingfield::showDummyRule, (bits & 4) == 0);
    (void)world.request(0, tk::command::set, settings);  // either answer is right
}

tk::message Player::item() {
    configured = true;
    tk::message values;
    values.insert_u32(contract::itemfield::interface, script.interface());
    const unsigned kind = script.number(8);
    values.insert_u32(contract::itemfield::type, kind % 4);
    values.insert_bool(tk::field::disabled, kind >= 4);
    return values;
}

void Player::addItem() {
    (void)world.request(0, tk::command::addObject, item());  // either answer is right, as in the next two
}

void Player::setItem() {
    const std::uint32_t id = script.number(8);
    tk::message values = item();
    values.insert_u32(tk::field::objectId, id);
    (void)world.request(0, tk::command::setObject, values);
}

void Player::removeItem() {
    configured = true;
    tk::message values;
    values.insert_u32(tk::field::objectId, script.number(8));
    (void)world.request(0, tk::command::removeObject, values);
}

void Player::list() {
    const struct {
        std::uint32_t handler;
        std::uint32_t command;
    } rows[] = {{contract::handler::mappings, tk::command::getAll},
                {contract::handler::mappings, tk::command::getCount},
                {contract::handler::mappings, contract::recentRefusals},
                {0, tk::command::getAll},
                {0, tk::command::getObject},
                {0, tk::command::get},
                {0, tk::command::moveObject},
                {0, contract::interfaceChanged}};
    const auto& row = rows[script.number(std::size(rows))];
    tk::message request;
    request.insert_u32(tk::field::next, script.number(36) << 14);
    (void)world.request(row.handler, row.command, request);  // the answers have tests of their own
}

void Player::restart() {
    world.start();
}

}  // namespace fuzz
