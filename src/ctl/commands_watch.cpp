#include "ctl/commands.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/App.hpp>

#include "contract/interfaces.h"
#include "contract/programs.h"
#include "ctl/commandline.h"
#include "ctl/context.h"
#include "ctl/failure.h"
#include "ctl/overview.h"
#include "ctl/overviewlayout.h"
#include "ctl/screen.h"
#include "ctl/session.h"
#include "ctl/startadvice.h"
#include "ctl/traceoutput.h"
#include "ctl/traffic.h"
#include "ctl/watchterminal.h"
#include "tk/busconnection.h"
#include "tk/fd.h"
#include "tk/log.h"
#include "tk/names.h"
#include "tk/runner.h"
#include "tk/subscription.h"
#include "tk/timer.h"

namespace ctl {

namespace {

// Units: milliseconds.
constexpr std::uint64_t usualPause = 1000;    // between two readings
constexpr std::uint64_t shortestPause = 200;  // when something has changed
// A reading that takes long, for there are many mappings, is followed by a pause of so many times as long.
constexpr std::uint64_t restFactor = 4;

constexpr int signals[] = {SIGINT, SIGTERM, SIGHUP, SIGWINCH, SIGTSTP};
constexpr const char* footer = "q: quit";

/// Blocks the signals and makes them readable.
tk::Fd catchSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : signals) sigaddset(&set, number);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return tk::Fd(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

/// Shows the overview until it is interrupted. Where routerd ends, it says so and waits for it.
class Watcher final : public tk::BusConnection::Receiver {
public:
    explicit Watcher(Context& context)
        : context(context),
          isLive(context.terminal.hasCursor && !context.json),
          takesKeys(context.terminal.isTerminal && !context.json),
          screen(context.terminal) {}

    /// Errors: throws Failure.
    void run();

    void busReceived(const tk::message& received) override;
    void busLost(const std::string&) override { readSoon(); }

private:
    void connect();
    Overview read();
    void refresh();
    void readSoon();
    void readDue() { isDue = true; }

    void show(const Overview& overview);
    void showLive(const Overview& overview);
    void redraw();
    void check(TraceOutput::Result result, const std::string& reason);

    void keyPressed(int descriptor, std::uint32_t);
    void signalled(int descriptor, std::uint32_t);
    void readerLeft(int, std::uint32_t) { end({}); }
    void pause();
    void end(const std::string& reason);

    Context& context;
    const bool isLive;
    const bool takesKeys;
    tk::SystemClock clock;
    tk::Runner runner{clock};
    tk::Fd signalSource = catchSignals();
    TraceOutput plainOutput{STDOUT_FILENO, signalSource.get()};
    std::optional<WatchTerminal> terminal;  // where it takes keys
    Screen screen;
    TrafficHistory history;
    std::optional<Overview> last;
    std::string printed;
    std::unique_ptr<tk::BusConnection> bus;
    tk::Timer<Watcher, &Watcher::readDue> timer{*this, runner};
    bool isDue = true;
    std::uint64_t nextReading = 0;  // by the runner's clock
    std::uint64_t soonestReading = 0;
    std::optional<std::string> ended;
};

void Watcher::run() {
    if (!signalSource.isOpen()) throw Failure("cannot watch for the end: " + tk::errorText());
    connect();
    tk::Watch signalWatch(runner);
    signalWatch.start<Watcher, &Watcher::signalled>(signalSource.get(), *this, tk::readable);
    tk::Watch keyWatch(runner);
    if (takesKeys && ::isatty(STDIN_FILENO) == 1)
        keyWatch.start<Watcher, &Watcher::keyPressed>(STDIN_FILENO, *this, tk::readable);
    // Asks for no event: the loss of the reader is reported in any case.
    tk::Watch readerWatch(runner);
    readerWatch.start<Watcher, &Watcher::readerLeft>(STDOUT_FILENO, *this, 0);
    if (takesKeys) terminal.emplace(STDIN_FILENO, STDOUT_FILENO, signalSource.get(), isLive).enter();
    while (!ended) {
        if (isDue) refresh();
        if (!ended) runner.turn(-1);
    }
    terminal.reset();
    if (!ended->empty()) throw Failure(*ended);
}

void Watcher::connect() {
    auto opened = tk::BusConnection::open(context.socketPath, runner, this);
    if (!opened.isOk()) throw unreachableBus(context.socketPath, opened.status().code());
    bus = opened.take();
    history.clear();
    Session session(*bus);
    const tk::Subscription wanted[] = {{contract::path::interfaces(), contract::interfaceChanged},
                                       {contract::path::interfaces(), tk::command::objectsChanged},
                                       {contract::path::addresses(), tk::command::objectsChanged},
                                       {contract::path::nat(), tk::command::objectsChanged},
                                       {contract::path::gateway(), tk::command::objectsChanged}};
    for (const tk::Subscription& subscription : wanted)
        // What is refused is seen a little later, by the next reading.
        (void)session.exchange(contract::path::hub(), tk::command::hubSubscribe, subscription.toMessage());
}

Overview Watcher::read() {
    Overview overview;
    try {
        if (!bus) connect();
        Session session(*bus);
        overview = readOverview(session);
    } catch (const Failure& failure) {
        overview.routerFailure = failure.what();
        if (bus && !bus->isOpen()) bus.reset();
    }
    return overview;
}

void Watcher::refresh() {
    isDue = false;
    const std::uint64_t began = runner.now();
    last = read();
    if (last->routerFailure.empty()) history.note(last->mappings, runner.now());
    show(*last);
    const std::uint64_t now = runner.now();
    const std::uint64_t rest = restFactor * (now - began);
    soonestReading = now + std::max(shortestPause, rest);
    nextReading = now + std::max(usualPause, rest);
    timer.arm(static_cast<std::uint32_t>((nextReading - now) / tk::tickMilliseconds));
}

void Watcher::readSoon() {
    if (nextReading <= soonestReading) return;  // it is under way, or soon enough
    nextReading = soonestReading;
    const std::uint64_t now = runner.now();
    const std::uint64_t wait = soonestReading > now ? soonestReading - now : 0;
    timer.arm(static_cast<std::uint32_t>(wait / tk::tickMilliseconds));
}

void Watcher::busReceived(const tk::message& received) {
    if (tk::kindOf(received) == tk::Kind::notification) readSoon();
}

void Watcher::show(const Overview& overview) {
    if (isLive) return showLive(overview);
    Terminal endless = context.terminal;
    endless.height = 0;
    const std::string text =
        context.json ? lineOf(overviewToJson(overview)) + '\n' : endless.render(layOut(overview, endless));
    if (text == printed) return;
    const bool wantsGap = !context.json && !printed.empty();
    check(plainOutput.write(wantsGap ? '\n' + text : text), plainOutput.reason());
    printed = text;
}

void Watcher::showLive(const Overview& overview) {
    const Terminal& seen = context.terminal;
    std::vector<Line> frame = layOut(overview, seen, &history);
    frame.resize(std::max<std::size_t>(seen.height, 1));
    frame.back() = {{footer, Style::faint}};
    check(terminal->write(screen.draw(frame)), terminal->reason());
}

void Watcher::redraw() {
    context.terminal = Terminal::of(STDOUT_FILENO);
    screen.forget(context.terminal);
    if (isLive && last) showLive(*last);
}

void Watcher::check(TraceOutput::Result result, const std::string& reason) {
    if (result == TraceOutput::Result::closed) end({});
    if (result == TraceOutput::Result::failed) end("cannot write: " + reason);
    // What was not written because of a signal is drawn once that is handled.
    if (result == TraceOutput::Result::interrupted) screen.forget(context.terminal);
}

void Watcher::keyPressed(int descriptor, std::uint32_t) {
    char keys[64];
    const ssize_t count = ::read(descriptor, keys, sizeof keys);
    if (count <= 0) return end({});  // the terminal is gone
    if (std::any_of(keys, keys + count, [](char key) { return key == 'q' || key == 'Q'; })) end({});
}

void Watcher::signalled(int descriptor, std::uint32_t) {
    signalfd_siginfo caught{};
    while (::read(descriptor, &caught, sizeof caught) == static_cast<ssize_t>(sizeof caught)) {
        if (caught.ssi_signo == SIGTSTP)
            pause();
        else if (caught.ssi_signo == SIGWINCH)
            redraw();
        else
            return end({});
    }
}

/// Stops like any program, with the terminal as it was.
void Watcher::pause() {
    if (terminal) terminal->leave();
    ::raise(SIGSTOP);
    if (terminal) terminal->enter();
    redraw();
}

void Watcher::end(const std::string& reason) {
    if (!ended) ended = reason;
}

}  // namespace

void addWatchCommand(CLI::App& app, Context& context) {
    CLI::App& command = addCommand(app, context, "watch",
                                   "The same live, with the traffic of the last minute, until q or Ctrl-C",
                                   [&context] { Watcher(context).run(); });
    addExample(command, "--json");
}

}  // namespace ctl
