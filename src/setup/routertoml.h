#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tk/status.h"

namespace setup {

/// One key of the configuration file and the value that it is to have, as the file writes it. A value.
struct Setting {
    std::string section;  // "lan" for [lan]
    std::string key;
    std::string value;

    bool operator==(const Setting&) const = default;
};

/// One [[program]] of the configuration file. A value.
struct Program {
    std::uint32_t number = 0;
    std::string text;  // its other lines, each with its end

    bool operator==(const Program&) const = default;
};

/// How a [[program]] is to be started from now on. A value.
struct Command {
    std::uint32_t number = 0;
    std::string command;  // a full path
    std::string user;     // empty: the router's

    bool operator==(const Command&) const = default;
};

/// What is to change in the configuration file. A value.
struct Changes {
    std::vector<Setting> settings;
    std::vector<Program> programs;  // that are added
    std::vector<Command> commands;  // each in place of the program's trigger
};

/// The text of router.toml: tells what it says, and changes single values in it, so that comments, order and
/// everything else stay as they are.
class RouterToml {
public:
    /// `name` is that of the file, for the texts of errors.
    /// Errors: when the text is not TOML, with the line.
    [[nodiscard]] static tk::Result<RouterToml> parse(const std::string& text, const std::string& name);

    /// The file's text.
    [[nodiscard]] const std::string& text() const { return content; }

    /// The names in [lan] interfaces; none when there is no such key.
    /// Errors: when it is no list of texts.
    [[nodiscard]] tk::Result<std::optional<std::vector<std::string>>> lanInterfaces() const;
    /// True when the section has the key.
    [[nodiscard]] bool has(const std::string& section, const std::string& key) const;
    /// True when a [[program]] has the number.
    [[nodiscard]] bool hasProgram(std::uint32_t number) const;
    /// True when the [[program]] with the number is started by that trigger.
    [[nodiscard]] bool hasTrigger(std::uint32_t number, const std::string& trigger) const;

    /// The text with changes. A key that is absent goes below a comment that shows it, or to the end of its
    /// section; a section that is absent goes to the end of the file, and so do added programs. A trigger
    /// becomes a comment.
    /// Errors: when a section is written in a way that cannot be added to, when comments would be lost, or when
    /// the result would mean something else.
    [[nodiscard]] tk::Result<std::string> with(const Changes& changes) const;

private:
    RouterToml(std::string content, std::string name) : content(std::move(content)), name(std::move(name)) {}

    std::string content;
    std::string name;
};

/// A list of texts as the file writes it: ["a", "b"].
[[nodiscard]] std::string listText(const std::vector<std::string>& entries);

}  // namespace setup
