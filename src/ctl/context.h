#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "contract/programs.h"
#include "ctl/failure.h"
#include "ctl/json.h"
#include "ctl/session.h"
#include "ctl/table.h"
#include "ctl/terminal.h"
#include "tk/bus.h"

namespace ctl {

/// What each command can use: the shared options, the bus, and the output.
class Context {
public:
    /// Answers go to `out`. Requests go to `bus` or, when that is null, to the hub, which the first call of
    /// session() connects to.
    /// Lifetime: both outlive the context.
    explicit Context(std::ostream& out, tk::Bus* bus = nullptr) : out(out), bus(bus) {}

    /// The session for requests to the services.
    /// Errors: throws Unreachable when the hub cannot be reached.
    Session& session();

    /// Prints the answer: one line of JSON if asked for, else the text for people.
    void print(const Json& value, const std::string& text);

    /// The same with a table, which is made to fit the terminal.
    void print(const Json& value, const Table& table);

    std::ostream& out;
    /// Who reads the output.
    Terminal terminal;
    std::string socketPath = contract::busPath;
    bool json = false;

    /// The chosen command, to be run once the command line is parsed.
    std::function<void()> run;
    /// How the program ends when the command has run without a failure.
    Status status = Status::done;

private:
    tk::Bus* bus;
    std::unique_ptr<Connection> connection;
    std::optional<Session> opened;
};

}  // namespace ctl
