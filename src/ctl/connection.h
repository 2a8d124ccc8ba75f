#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "tk/busconnection.h"
#include "tk/runner.h"
#include "tk/looper.h"

namespace ctl {

/// tkctl's connection to the hub, and the loop that it needs. No program is registered, and no signal is
/// touched: a command that waits is ended by an interrupt like any other.
class Connection {
public:
    /// Errors: throws Failure when the hub cannot be reached. Lifetime: `receiver` outlives the connection.
    Connection(const std::string& socketPath, tk::BusConnection::Receiver& receiver);

    tk::Bus& bus() { return *connection; }
    tk::Runner& runner() { return looper.runner(); }

private:
    /// What the loop's own requests go to: tkctl has none.
    class NoBus final : public tk::Bus {
    public:
        tk::message exchange(const tk::message& request, const tk::Path& from, std::uint32_t command,
                             std::uint32_t timeout) override;
        void post(tk::message stamped) override;
    };

    tk::SystemClock clock;
    NoBus noBus;
    tk::Looper looper{clock, noBus, 0};
    std::unique_ptr<tk::BusConnection> connection;
};

/// For commands that only ask: nothing else arrives, and a lost bus shows in the request that fails.
class NoReceiver final : public tk::BusConnection::Receiver {
public:
    void busReceived(const tk::message&) override {}
    void busLost(const std::string&) override {}
};

}  // namespace ctl
