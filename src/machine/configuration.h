#pragma once

#include <cstdint>
#include <string>

#include "tk/status.h"

namespace machine {

/// The configuration file that a command line of routerd names; the usual one if it names none.
/// `commandLine`: its arguments, with a zero after each, as the kernel tells them.
[[nodiscard]] std::string configurationIn(const std::string& commandLine);

/// The configuration file that the routerd with that process id reads, as a full path if the process may be
/// looked at; the usual one if it cannot be told.
[[nodiscard]] std::string configurationOf(std::uint32_t pid);

/// What routerd says of a configuration file. A value.
struct ConfigurationCheck {
    std::string command;  // the line of the shell that asks again; empty when nobody was asked
    std::string refusal;  // why it would not start with it; empty when it would, or nobody can tell

    bool operator==(const ConfigurationCheck&) const = default;
};

/// Has a routerd check a file, as the user as whom systemd starts it, or else as root: root may read every file
/// and start programs as anybody, and that user may not. Only root can ask like this; for others nobody is
/// asked.
/// `program`: the full path of routerd; empty: there is none to ask. `file`: a full path.
/// Errors: when it cannot be run.
[[nodiscard]] tk::Result<ConfigurationCheck> checkConfiguration(const std::string& program,
                                                                const std::string& file);

}  // namespace machine
