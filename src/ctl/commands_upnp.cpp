#include "ctl/commands.h"

#include <memory>
#include <string>
#include <vector>

#include <CLI/App.hpp>

#include "contract/gateway.h"
#include "contract/programs.h"
#include "ctl/commandline.h"
#include "ctl/context.h"
#include "ctl/gatewayjson.h"
#include "ctl/keyvalues.h"
#include "ctl/table.h"
#include "ctl/text.h"
#include "tk/names.h"

namespace ctl {

namespace {

contract::Settings readSettings(Session& session) {
    return contract::Settings::fromMessage(session.request(contract::path::gateway(), tk::command::get), {});
}

void getSettings(Context& context) {
    const contract::Settings settings = readSettings(context.session());
    Table table({"SETTING", "VALUE"});
    table.add({settingkey::enabled, yesNo(settings.enabled)});
    table.add({settingkey::allowDisableExternal, yesNo(settings.allowDisableExternal)});
    table.add({settingkey::showDummyRule, yesNo(settings.showDummyRule)});
    context.print(settingsToJson(settings), table);
}

void setSettings(Context& context, const std::vector<std::string>& arguments) {
    const KeyValues wanted(
        arguments, {settingkey::enabled, settingkey::allowDisableExternal, settingkey::showDummyRule});
    const auto enabled = wanted.flag(settingkey::enabled);
    const auto allowDisableExternal = wanted.flag(settingkey::allowDisableExternal);
    const auto showDummyRule = wanted.flag(settingkey::showDummyRule);

    // The message replaces all settings, so it must hold the unchanged ones too.
    contract::Settings settings = readSettings(context.session());
    settings.enabled = enabled.value_or(settings.enabled);
    settings.allowDisableExternal = allowDisableExternal.value_or(settings.allowDisableExternal);
    settings.showDummyRule = showDummyRule.value_or(settings.showDummyRule);
    context.session().request(contract::path::gateway(), tk::command::set, settings.toMessage());
    context.print(settingsToJson(settings), "");
}

}  // namespace

void addUpnpCommands(CLI::App& upnp, Context& context) {
    CLI::App& get =
        addCommand(upnp, context, "get", "Show the settings", [&context] { getSettings(context); });
    addExample(get, "--json");

    const auto arguments = std::make_shared<std::vector<std::string>>();
    CLI::App& set = addCommand(upnp, context, "set", "Change settings; the others stay unchanged",
                               [&context, arguments] { setSettings(context, *arguments); });
    addExample(set, "enabled=yes");
    set.add_option("settings", *arguments,
                   "enabled=yes|no: serve UPnP\n"
                   "allow-disable-external=yes|no: let LAN hosts disconnect the external interface\n"
                   "show-dummy-rule=yes|no: show an inactive first mapping, which some clients need")
        ->type_name("KEY=VALUE")
        ->required();
}

}  // namespace ctl
