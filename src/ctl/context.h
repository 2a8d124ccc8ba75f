#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "contract/programs.h"
#include "ctl/json.h"
#include "ctl/session.h"
#include "ctl/table.h"
#include "tk/bus.h"

namespace ctl {

/// What every command has at hand: the options that all share, the bus, and where its answer goes.
class Context {
public:
    /// Answers go to `out`. The requests go to `bus`, or, where it is null, to the hub, which is connected
    /// when the first session is asked for.
    /// Lifetime: both outlive the context.
    explicit Context(std::ostream& out, tk::Bus* bus = nullptr) : out(out), bus(bus) {}

    /// The way to the services.
    /// Errors: throws Failure when the hub cannot be reached.
    Session& session();

    /// Prints the answer: JSON as one line where it is asked for, else the text for people.
    void print(const Json& value, const std::string& text);

    std::ostream& out;
    std::string socketPath = contract::busPath;
    bool json = false;

    /// The command that was chosen, to be run when the command line is parsed.
    std::function<void()> run;

private:
    tk::Bus* bus;
    std::unique_ptr<Connection> connection;
    std::optional<Session> opened;
};

}  // namespace ctl
