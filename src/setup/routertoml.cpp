#include "setup/routertoml.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "tk/toml.h"

namespace setup {

namespace {

using Lines = std::vector<std::string>;  // each with its end

Lines linesOf(std::string_view text) {
    Lines lines;
    while (!text.empty()) {
        const std::size_t length = std::min(text.find('\n'), text.size() - 1) + 1;
        lines.emplace_back(text.substr(0, length));
        text.remove_prefix(length);
    }
    return lines;
}

std::string joined(const Lines& lines) {
    std::string text;
    for (const std::string& line : lines) text += line;
    return text;
}

bool endsLine(const std::string& line) {
    return !line.empty() && line.back() == '\n';
}

/// Where a column, which counts characters, begins in a line. Columns start at 1.
std::size_t offsetOf(const std::string& line, std::uint32_t column) {
    constexpr unsigned char continuationMask = 0xC0;
    constexpr unsigned char continuation = 0x80;
    std::size_t offset = 0;
    for (std::uint32_t passed = 1; passed < column && offset < line.size(); ++passed) do
            ++offset;
        while (offset < line.size() &&
               (static_cast<unsigned char>(line[offset]) & continuationMask) == continuation);
    return offset;
}

tk::Result<toml::table> parseToml(const std::string& text, const std::string& name) {
    toml::parse_result parsed = toml::parse(text, name);
    if (parsed) return std::move(parsed).table();
    return tk::Status::failure(name + ":" + std::to_string(parsed.error().source().begin.line) + ": " +
                               std::string(parsed.error().description()));
}

/// True for a comment that shows the key: "# limit = 0".
bool showsKey(std::string_view line, const std::string& key) {
    const auto skip = [&](std::string_view characters) {
        line.remove_prefix(std::min(line.find_first_not_of(characters), line.size()));
    };
    skip(" \t");
    if (!line.starts_with('#')) return false;
    skip("# \t");
    if (!line.starts_with(key)) return false;
    line.remove_prefix(key.size());
    skip(" \t");
    return line.starts_with('=');
}

/// The [[program]] with a number; null when there is none.
template <typename Root>
auto programOf(Root& root, std::uint32_t number) -> decltype(root.as_table()) {
    auto* list = root["program"].as_array();
    for (std::size_t i = 0; list && i < list->size(); ++i)
        if (auto* program = list->get(i)->as_table();
            program && (*program)["number"].template value<std::int64_t>() == std::int64_t{number})
            return program;
    return nullptr;
}

/// Changes one text, value by value. Each change parses the text again, so that places stay right.
class Editor {
public:
    Editor(const std::string& text, const std::string& name) : name(name), lines(linesOf(text)) {
        const bool hasReturns = !lines.empty() && lines.front().ends_with("\r\n");
        lineEnd = hasReturns ? "\r\n" : "\n";
    }

    tk::Status set(const Setting& setting) {
        const tk::Result<toml::table> root = parseToml(joined(lines), name);
        if (!root.isOk()) return root.status();
        const toml::node* found = root->get(setting.section);
        if (!found) return addSection(setting);
        const toml::table* section = found->as_table();
        if (!section || !hasHeader(*section))
            return unchangeable(*found, setting.section, "[" + setting.section + "]");
        return put(*section, setting);
    }

    tk::Status set(const Command& command) {
        tk::Status status = dropTrigger(command.number);
        if (status.isOk()) status = setInProgram(command.number, "command", listText({command.command}));
        if (status.isOk() && !command.user.empty())
            status = setInProgram(command.number, "user", '"' + command.user + '"');
        return status;
    }

    void add(const Program& program) {
        startSection("[[program]]");
        lines.push_back("number = " + std::to_string(program.number) + lineEnd);
        for (const std::string& line : linesOf(program.text))
            lines.push_back(line.substr(0, line.find('\n')) + lineEnd);
    }

    std::string text() const { return joined(lines); }

private:
    tk::Status unchangeable(const toml::node& node, const std::string& key, const std::string& header) const {
        return tk::Status::failure(name + ":" + std::to_string(node.source().begin.line) + ": " + key +
                                   ": write it as " + header +
                                   " with its keys below, so that it can be changed");
    }

    tk::Status put(const toml::table& section, const Setting& setting) {
        const toml::node* value = section.get(setting.key);
        if (value && hasComments(*value))
            return tk::Status::failure(name + ":" + std::to_string(value->source().begin.line) + ": " +
                                       setting.key + ": the comments in its list would be lost; write " +
                                       setting.key + " = " + setting.value + " by hand, then try again");
        if (value)
            replace(value->source(), setting.value);
        else
            insert(placeFor(section, setting.key), lineOf(setting));
        return {};
    }

    tk::Status setInProgram(std::uint32_t number, const std::string& key, const std::string& value) {
        const tk::Result<toml::table> root = parseToml(joined(lines), name);
        if (!root.isOk()) return root.status();
        const toml::table* program = programOf(*root, number);
        return program ? put(*program, {"program", key, value}) : tk::Status();
    }

    tk::Status dropTrigger(std::uint32_t number) {
        const tk::Result<toml::table> root = parseToml(joined(lines), name);
        if (!root.isOk()) return root.status();
        const toml::table* program = programOf(*root, number);
        const toml::node* trigger = program ? program->get("trigger") : nullptr;
        if (!trigger) return {};
        if (!hasHeader(*program)) return unchangeable(*program, "program", "[[program]]");
        std::string& line = lines[trigger->source().begin.line - 1];
        line = '#' + line;
        return {};
    }

    std::string lineOf(const Setting& setting) const { return setting.key + " = " + setting.value + lineEnd; }

    /// Inline tables and dotted keys have none.
    bool hasHeader(const toml::table& section) const {
        const toml::source_position begin = section.source().begin;
        if (section.is_inline() || begin.line == 0 || begin.line > lines.size()) return false;
        const std::string& line = lines[begin.line - 1];
        return line.compare(offsetOf(line, begin.column), 1, "[") == 0;
    }

    /// What stands from one place up to another.
    std::string between(const toml::source_position& from, const toml::source_position& to) const {
        std::string text;
        for (std::size_t line = from.line; line <= to.line; ++line) {
            const std::string& whole = lines[line - 1];
            const std::size_t begin = line == from.line ? offsetOf(whole, from.column) : 0;
            const std::size_t end = line == to.line ? offsetOf(whole, to.column) : whole.size();
            text.append(whole, begin, end - begin);
        }
        return text;
    }

    /// True when there are comments between the entries of a list.
    bool hasComments(const toml::node& value) const {
        const toml::array* list = value.as_array();
        if (!list) return false;
        std::string rest;
        toml::source_position reached = value.source().begin;
        for (const toml::node& entry : *list) {
            rest += between(reached, entry.source().begin);
            reached = entry.source().end;
        }
        return (rest + between(reached, value.source().end)).find('#') != std::string::npos;
    }

    void startSection(const std::string& header) {
        if (!lines.empty() && !endsLine(lines.back())) lines.back() += lineEnd;
        if (!lines.empty()) lines.push_back(lineEnd);
        lines.push_back(header + lineEnd);
    }

    tk::Status addSection(const Setting& setting) {
        startSection("[" + setting.section + "]");
        lines.push_back(lineOf(setting));
        return {};
    }

    void insert(std::size_t place, const std::string& line) {
        if (place > 0 && !endsLine(lines[place - 1])) lines[place - 1] += lineEnd;
        lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(place), line);
    }

    /// The index of the line before which a new key of the section goes.
    std::size_t placeFor(const toml::table& section, const std::string& key) const {
        std::size_t place = section.source().begin.line;  // below the header: lines count from 1
        for (const auto& [other, value] : section)
            place = std::max<std::size_t>(place, value.source().end.line);
        for (std::size_t i = section.source().begin.line; i < lines.size() && !startsSection(lines[i]); ++i)
            if (showsKey(lines[i], key) && !isWithinValue(section, i)) return i + 1;
        return place;
    }

    static bool startsSection(const std::string& line) {
        const std::size_t first = line.find_first_not_of(" \t");
        return first != std::string::npos && line[first] == '[' && line.find('=') == std::string::npos;
    }

    /// True when the line, by its index, is one of a value of several lines.
    static bool isWithinValue(const toml::table& section, std::size_t index) {
        return std::any_of(section.begin(), section.end(), [index](const auto& entry) {
            const toml::source_region place = entry.second.source();
            return index + 1 >= place.begin.line && index + 1 < place.end.line;
        });
    }

    void replace(const toml::source_region& place, const std::string& value) {
        const std::string& last = lines[place.end.line - 1];
        const std::string rest = last.substr(offsetOf(last, place.end.column));
        std::string& first = lines[place.begin.line - 1];
        first = first.substr(0, offsetOf(first, place.begin.column)) + value + rest;
        lines.erase(lines.begin() + place.begin.line, lines.begin() + place.end.line);
    }

    const std::string& name;
    Lines lines;
    std::string lineEnd;
};

void putInto(toml::table& root, const std::vector<Command>& commands) {
    for (const Command& command : commands) {
        toml::table* program = programOf(root, command.number);
        if (!program) continue;
        program->erase("trigger");
        program->insert_or_assign("command", toml::array{command.command});
        if (!command.user.empty()) program->insert_or_assign("user", command.user);
    }
}

/// Puts the settings into a parsed table.
/// Errors: a value is not TOML.
tk::Status putInto(toml::table& root, const std::vector<Setting>& settings, const std::string& name) {
    for (const Setting& setting : settings) {
        tk::Result<toml::table> value = parseToml("value = " + setting.value, name);
        if (!value.isOk()) return value.status();
        if (!root.contains(setting.section)) root.insert(setting.section, toml::table());
        toml::table* section = root.get_as<toml::table>(setting.section);
        if (section) section->insert_or_assign(setting.key, *value->get("value"));
    }
    return {};
}

tk::Status putInto(toml::table& root, const std::vector<Program>& programs, const std::string& name) {
    for (const Program& program : programs) {
        tk::Result<toml::table> value =
            parseToml("number = " + std::to_string(program.number) + "\n" + program.text, name);
        if (!value.isOk()) return value.status();
        if (!root.contains("program")) root.insert("program", toml::array());
        if (toml::array* list = root.get_as<toml::array>("program")) list->push_back(value.take());
    }
    return {};
}

}  // namespace

tk::Result<RouterToml> RouterToml::parse(const std::string& text, const std::string& name) {
    const tk::Result<toml::table> parsed = parseToml(text, name);
    if (!parsed.isOk()) return parsed.status();
    return RouterToml(text, name);
}

tk::Result<std::optional<std::vector<std::string>>> RouterToml::lanInterfaces() const {
    using Names = std::optional<std::vector<std::string>>;
    const tk::Result<toml::table> root = parseToml(content, name);
    if (!root.isOk()) return root.status();
    const auto value = (*root)["lan"]["interfaces"];
    if (!value) return Names();
    Names names(std::in_place);
    const toml::array* list = value.as_array();
    for (std::size_t i = 0; list && i < list->size(); ++i) {
        const toml::value<std::string>* text = list->get(i)->as_string();
        if (text) names->push_back(text->get());
    }
    if (list && names->size() == list->size()) return names;
    return tk::Status::failure(name + ":" + std::to_string(value.node()->source().begin.line) +
                               ": interfaces: must be a list of interfaces, such as \"lan0\"");
}

bool RouterToml::has(const std::string& section, const std::string& key) const {
    const tk::Result<toml::table> root = parseToml(content, name);
    return root.isOk() && bool((*root)[section][key]);
}

bool RouterToml::hasProgram(std::uint32_t number) const {
    const tk::Result<toml::table> root = parseToml(content, name);
    return root.isOk() && programOf(*root, number);
}

bool RouterToml::hasTrigger(std::uint32_t number, const std::string& trigger) const {
    const tk::Result<toml::table> root = parseToml(content, name);
    const toml::table* program = root.isOk() ? programOf(*root, number) : nullptr;
    return program && (*program)["trigger"].value<std::string>() == trigger;
}

tk::Result<std::string> RouterToml::with(const Changes& changes) const {
    Editor editor(content, name);
    for (const Setting& setting : changes.settings)
        if (tk::Status status = editor.set(setting); !status.isOk()) return status;
    for (const Command& command : changes.commands)
        if (tk::Status status = editor.set(command); !status.isOk()) return status;
    for (const Program& program : changes.programs) editor.add(program);
    tk::Result<toml::table> wanted = parseToml(content, name);
    if (!wanted.isOk()) return wanted.status();
    putInto(*wanted, changes.commands);
    tk::Status status = putInto(*wanted, changes.settings, name);
    if (status.isOk()) status = putInto(*wanted, changes.programs, name);
    if (!status.isOk()) return status;
    const tk::Result<toml::table> made = parseToml(editor.text(), name);
    if (made.isOk() && *made == *wanted) return editor.text();
    return tk::Status::failure(name + ": cannot be changed without changing what else it says; write " +
                               "the proposed keys yourself");
}

std::string listText(const std::vector<std::string>& entries) {
    std::string text;
    for (const std::string& entry : entries) text += (text.empty() ? "\"" : ", \"") + entry + '"';
    return '[' + text + ']';
}

}  // namespace setup
