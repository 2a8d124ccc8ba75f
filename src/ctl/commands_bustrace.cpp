#include "ctl/commands.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdint>
#include <optional>
#include <string>

#include <CLI/App.hpp>

#include "contract/programs.h"
#include "ctl/commandline.h"
#include "ctl/context.h"
#include "ctl/failure.h"
#include "ctl/json.h"
#include "ctl/session.h"
#include "ctl/traceoutput.h"
#include "tk/fd.h"
#include "tk/log.h"
#include "tk/names.h"
#include "tk/timer.h"

namespace ctl {

namespace {

/// Blocks the signals that end the trace, so that they no longer end the process. They make the descriptor
/// readable.
tk::Fd catchInterruption() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return tk::Fd(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

/// Prints what the hub traces until it is interrupted, the reader leaves, or the bus is lost.
class Tracer final : public tk::BusConnection::Receiver {
public:
    explicit Tracer(bool json) : json(json) {}

    /// Errors: throws Failure.
    void run(const std::string& socketPath);

    void busReceived(const tk::message& received) override;
    void busLost(const std::string& reason) override { end("routerd is gone: " + reason); }

private:
    void interrupted(int, std::uint32_t) { end({}); }
    void readerLeft(int, std::uint32_t) { end({}); }
    /// Ends the trace; an empty reason means success. Only the first call counts.
    void end(const std::string& reason);

    const bool json;
    std::optional<std::string> ended;
    TraceOutput* output = nullptr;
};

void Tracer::run(const std::string& socketPath) {
    Connection connection(socketPath, this);
    Session(connection.bus()).request(contract::path::hub(), tk::command::hubTrace);

    const tk::Fd interruption = catchInterruption();
    if (!interruption.isOpen()) throw Failure("cannot watch for the end: " + tk::errorText());
    TraceOutput toReader(STDOUT_FILENO, interruption.get());
    output = &toReader;
    tk::Watch signalWatch(connection.runner());
    signalWatch.start<Tracer, &Tracer::interrupted>(interruption.get(), *this, tk::readable);
    // Asks for no event: the loss of the reader is reported in any case.
    tk::Watch readerWatch(connection.runner());
    readerWatch.start<Tracer, &Tracer::readerLeft>(STDOUT_FILENO, *this, 0);
    while (!ended) connection.runner().turn(-1);
    if (!ended->empty()) throw Failure(*ended);
}

void Tracer::busReceived(const tk::message& received) {
    const tk::message* traced = tracedMessage(received);
    if (!traced || !output) return;
    const std::string line = (json ? lineOf(toJson(*traced)) : traceText(*traced)) + '\n';
    switch (output->write(line)) {
        case TraceOutput::Result::written:
            return;
        case TraceOutput::Result::interrupted:
        case TraceOutput::Result::closed:
            output = nullptr;
            return end({});
        case TraceOutput::Result::failed:
            end("cannot write: " + output->reason());
            output = nullptr;
            return;
    }
}

void Tracer::end(const std::string& reason) {
    if (!ended) ended = reason;
}

}  // namespace

void addBusTraceCommand(CLI::App& bus, Context& context) {
    CLI::App& trace = addCommand(bus, context, "trace",
                                 "Print each message that passes the hub, one per line, until interrupted",
                                 [&context] { Tracer(context.json).run(context.socketPath); });
    addExample(trace, "--json");
}

}  // namespace ctl
