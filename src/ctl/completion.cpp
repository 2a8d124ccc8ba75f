#include "ctl/completion.h"

#include <net/if.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include <CLI/CLI.hpp>

#include "ctl/context.h"
#include "ctl/failure.h"
#include "ctl/helptext.h"
#include "ctl/interfaces.h"
#include "tk/characters.h"

namespace ctl {

namespace {

// Nobody waits longer for a name.
// Units: milliseconds.
constexpr std::uint32_t patience = 1000;
constexpr const char* helpCommand = "help";
constexpr const char* socketOption = "--socket";

/// Something to offer, and what it means.
struct Offer {
    std::string word;
    std::string meaning;
};
using Offers = std::vector<Offer>;

/// Where the words before the last one lead.
struct Place {
    const CLI::App* command;
    std::size_t arguments = 0;            // how many it was given
    bool isUnknown = false;               // a word that leads nowhere
    const CLI::Option* option = nullptr;  // whose value comes next
};

std::vector<std::string> split(std::string_view text, char separator) {
    std::vector<std::string> parts;
    for (;;) {
        const std::size_t end = text.find(separator);
        parts.emplace_back(text.substr(0, end));
        if (end == std::string_view::npos) return parts;
        text.remove_prefix(end + 1);
    }
}

const CLI::Option* optionOf(const CLI::App& command, const std::string& word) {
    return word.starts_with('-') ? command.get_option_no_throw(word) : nullptr;
}

Place placeAfter(const CLI::App& app, Context& context, const std::vector<std::string>& words) {
    Place place{&app};
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (const CLI::Option* option = optionOf(*place.command, word)) {
            if (option->get_items_expected_max() == 0) continue;  // a flag
            if (++i == words.size())
                place.option = option;
            else if (word == socketOption)
                context.socketPath = words[i];
            continue;
        }
        const CLI::App* next = commandBelow(*place.command, word);
        const bool isGroup = !place.command->get_subcommands({}).empty();
        if (next && next->get_name() == helpCommand) continue;  // what follows it are commands again
        if (next)
            place.command = next;
        else if (isGroup)
            place.isUnknown = true;
        else
            ++place.arguments;
    }
    return place;
}

Offers optionsOf(const CLI::App& command) {
    Offers offers;
    for (const CLI::Option* option : command.get_options())
        for (const std::string& name : option->get_lnames())
            offers.push_back({"--" + name, option->get_description()});
    return offers;
}

Offers commandsBelow(const CLI::App& group) {
    Offers offers;
    for (const CLI::App* command : group.get_subcommands({}))
        offers.push_back({command->get_name(), command->get_description()});
    return offers;
}

Offers interfaceNames(Context& context) {
    Offers offers;
    try {
        Session session = context.session().waiting(patience);
        for (const Interface& entry : readInterfaces(session))
            if (tk::printable(entry.name) == entry.name) offers.push_back({entry.name, {}});
    } catch (const Failure&) {
        return {};  // a shell's line is no place for reasons
    }
    return offers;
}

/// The values of a key, from a line of help such as "enabled=yes|no: serve UPnP".
void addValues(const std::string& line, Context& context, Offers& offers) {
    const std::size_t equals = line.find('=');
    const std::size_t colon = line.find(':');
    if (equals == std::string::npos || colon == std::string::npos || colon < equals) return;
    const std::string key = line.substr(0, equals + 1);
    for (const std::string& value : split(line.substr(equals + 1, colon - equals - 1), '|')) {
        if (value == "NAME")
            for (const Offer& name : interfaceNames(context)) offers.push_back({key + name.word, {}});
        else
            offers.push_back({key + value, {}});
    }
}

/// What an argument can be, as its type or its help says.
Offers valuesOf(const CLI::Option& argument, Context& context) {
    const std::string type = argument.get_type_name();
    Offers offers;
    if (type == "NAME") return interfaceNames(context);
    if (type == "PROTOCOL") return {{"tcp", {}}, {"udp", {}}};
    if (type.find('|') != std::string::npos)
        for (const std::string& value : split(type, '|')) offers.push_back({value, {}});
    if (type == "KEY=VALUE")
        for (const std::string& line : split(argument.get_description(), '\n'))
            addValues(line, context, offers);
    return offers;
}

/// The interfaces of this machine, also where no routerd runs yet.
Offers machineInterfaces() {
    struct if_nameindex* const all = ::if_nameindex();
    if (!all) return {};
    Offers offers;
    for (const struct if_nameindex* entry = all; entry->if_index != 0; ++entry) {
        const std::string name = entry->if_name;
        if (name != "lo" && tk::printable(name) == name) offers.push_back({name, {}});
    }
    ::if_freenameindex(all);
    return offers;
}

Offers optionValues(const CLI::Option& option) {
    return option.get_type_name() == "NAME" ? machineInterfaces() : Offers{};
}

Offers argumentsOf(const CLI::App& command, std::size_t given, Context& context) {
    const auto arguments =
        command.get_options([](const CLI::Option* option) { return option->get_positional(); });
    if (arguments.empty()) return {};
    const CLI::Option& last = *arguments.back();
    if (given < arguments.size()) return valuesOf(*arguments[given], context);
    const bool repeats = last.get_expected_max() >= CLI::detail::expected_max_vector_size;
    return repeats ? valuesOf(last, context) : Offers{};
}

Offers offersAt(const Place& place, const std::string& begun, Context& context) {
    if (place.isUnknown) return {};
    if (place.option) return optionValues(*place.option);
    if (begun.starts_with('-')) return optionsOf(*place.command);
    if (!place.command->get_subcommands({}).empty()) return commandsBelow(*place.command);
    return argumentsOf(*place.command, place.arguments, context);
}

}  // namespace

void complete(const CLI::App& app, Context& context, std::vector<std::string> words) {
    std::string begun;
    if (!words.empty()) {
        begun = std::move(words.back());
        words.pop_back();
    }
    for (const Offer& offer : offersAt(placeAfter(app, context, words), begun, context)) {
        if (!offer.word.starts_with(begun)) continue;
        const std::string meaning = offer.meaning.substr(0, offer.meaning.find('\n'));
        context.out << offer.word << (meaning.empty() ? "" : '\t' + meaning) << '\n';
    }
}

}  // namespace ctl
