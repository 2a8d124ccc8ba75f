#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "tk/busconnection.h"
#include "tk/fd.h"
#include "tk/handler.h"
#include "tk/handlertable.h"
#include "tk/runner.h"

namespace tk {

class Inquiry;

/// The loop of a process: its runner, its connection to the bus and its handlers. There is one at a time.
/// It is a handler itself, and makes requests for code outside any handler.
class Looper final : public Handler, private BusConnection::Receiver {
public:
    /// Takes the platform's thirteen tuning numbers; only 0, the default of each, has a meaning here.
    explicit Looper(std::uint32_t = 0, std::uint32_t = 0, std::uint32_t = 0, std::uint32_t = 0,
                    std::uint32_t = 0, std::uint32_t = 0, std::uint32_t = 0, std::uint32_t = 0,
                    std::uint32_t = 0, std::uint32_t = 0, std::uint32_t = 0, std::uint32_t = 0,
                    std::uint32_t = 0);
    /// A loop on another clock and another bus, for tests and for the hub's own process.
    /// Lifetime: both outlive the loop. No signal is touched unless watchSignals() is called.
    Looper(const Clock& clock, Bus& bus, std::uint32_t program);
    ~Looper() override;

    /// Connects to the hub at `socketPath` and registers as program number `program`.
    /// Errors: why the hub cannot be reached or refuses the program; nothing is kept.
    [[nodiscard]] Status join(std::uint32_t program, const std::string& socketPath);

    /// Gives up the program's number: requests made from now on wait for its next start. Earlier requests
    /// have arrived when this returns; the loop hands them on before any timer that is armed from now on, and
    /// they are answered as usual.
    /// Errors: false when the hub did not confirm that it has let the number go; calling again does no harm.
    [[nodiscard]] bool resign();

    /// Serves `handler` under `number` at the path {program, number}.
    /// Lifetime: until the loop is destroyed, or the handler is removed.
    void addHandler(std::uint32_t number, Handler* handler);
    void removeHandler(std::uint32_t number);

    /// Runs until the process is to end: a leave request is due, SIGTERM or SIGINT came, or the bus is lost.
    /// A second signal ends the process at once.
    void run();

    /// Asks the loop to end after `ticks` of 10 ms; 0 withdraws the request. A new request replaces the old
    /// one.
    void setupLeave(std::uint32_t ticks);

    /// Hands one received message to its handler, and sends the answer of a request.
    void dispatch(const message& received);

    /// For Inquiry: sends its request from the loop's path, and hands it the end.
    /// Errors: as for Bus::ask().
    [[nodiscard]] message ask(const message& request, std::uint32_t command, Inquiry& inquiry,
                              std::uint32_t& number);
    /// For Inquiry: gives up its request.
    void forget(std::uint32_t number);

    /// Makes run() return after this turn, or before its first one.
    void leave() { leaving = true; }

    /// Makes SIGTERM and SIGINT end the loop in order, and ignores SIGPIPE. The first constructor calls it.
    void watchSignals();

    /// One turn of the loop: waits for the first event or timer, at most `limitMilliseconds` (-1: without
    /// limit).
    void turn(int limitMilliseconds);

    /// The sockets and timers of the loop.
    Runner& runner() { return events; }

private:
    void signalled(int fd, std::uint32_t events);
    void busReceived(const message& arrived) override;
    void busLost(const std::string& reason) override;
    void leaveNow();
    void endInquiry(const message& end);
    void notify(const message& notification);
    void reply(const message& request);

    SystemClock systemClock;
    Runner events;
    std::uint32_t program = 0;
    Fd signals;
    Watch signalWatch;
    std::unique_ptr<BusConnection> connection;
    Bus* bus = nullptr;  // the connection, or the bus handed in
    HandlerTable handlers;
    std::map<std::uint32_t, Inquiry*> inquiries;  // by the number of their request
    bool leaving = false;                         // asked by leave(), a signal or the bus
    bool leaveIsDue = false;                      // asked by setupLeave(), which can withdraw it
};

/// The process's loop.
/// Errors: null when there is none.
Looper* getLooper();

}  // namespace tk
