#include "tk/looper.h"

#include <errno.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cassert>
#include <utility>

#include "tk/inquiry.h"
#include "tk/log.h"

namespace tk {

namespace {

// How often to retry lines that wait for a stalled reader.
constexpr int logRetryMilliseconds = 100;

Looper* current = nullptr;

sigset_t endSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    return set;
}

/// Adds what to do where nobody serves the bus.
Status whyNotOpened(const Status& failure) {
    const bool isServed = failure.code() != ENOENT && failure.code() != ECONNREFUSED;
    return isServed ? failure : Status::failure(failure.reason() + ": start routerd first", failure.code());
}

/// Takes the standard descriptors before the runner opens its own.
const Clock& behindStandardDescriptors(const Clock& clock) {
    reserveStandardDescriptors();
    return clock;
}

}  // namespace

Looper* getLooper() {
    return current;
}

Runner* getRunner() {
    assert(current);
    return &current->runner();
}

Looper::Looper(std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t,
               std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t,
               std::uint32_t)
    : events(behindStandardDescriptors(systemClock)) {
    assert(!current);
    current = this;
    watchSignals();
}

Looper::Looper(const Clock& clock, Bus& bus, std::uint32_t program)
    : events(clock), program(program), bus(&bus) {
    assert(!current);
    current = this;
    attach(bus, {program, 0});
}

Looper::~Looper() {
    assert(inquiries.empty());
    connection.reset();
    signalWatch.stop();
    current = nullptr;
}

void Looper::watchSignals() {
    signal(SIGPIPE, SIG_IGN);
    const sigset_t set = endSignals();
    signals.reset(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!signals.isOpen()) return log("a signal will end this process at once: ", errorText());
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signalWatch.start<Looper, &Looper::signalled>(signals.get(), *this, readable, Runner::Priority::urgent);
}

void Looper::signalled(int fd, std::uint32_t) {
    signalfd_siginfo info{};
    if (::read(fd, &info, sizeof info) != sizeof info) return;
    // The first signal ends the loop in order. The next one finds the default action, and ends the process.
    signalWatch.stop();
    const sigset_t set = endSignals();
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
    leave();
}

Status Looper::join(std::uint32_t number, const std::string& socketPath) {
    Result<std::unique_ptr<BusConnection>> opened = BusConnection::open(socketPath, events, this);
    if (!opened.isOk()) return whyNotOpened(opened.status());
    connection = opened.take();
    message request;
    request.insert_u32(hubfield::program, number);
    request.insert_u32_array(field::destination, {program::hub});
    const message reply = connection->exchange(request, {number, 0}, command::hubRegister, exchangeTimeout);
    if (std::uint32_t code = 0; isError(reply, &code)) {
        connection.reset();
        return Status::failure(getError(reply), code);
    }
    program = number;
    bus = connection.get();
    attach(*bus, {program, 0});
    for (const auto& [id, handler] : handlers.all()) handler->attach(*bus, {program, id});
    return {};
}

bool Looper::resign() {
    message request;
    request.insert_u32(hubfield::program, program);
    request.insert_u32_array(field::destination, {program::hub});
    return !isError(bus->exchange(request, {program, 0}, command::hubUnregister, exchangeTimeout));
}

void Looper::addHandler(std::uint32_t number, Handler* handler) {
    handlers.add(number, *handler);
    if (bus) handler->attach(*bus, {program, number});
}

void Looper::removeHandler(std::uint32_t number) {
    handlers.remove(number);
}

void Looper::turn(int limitMilliseconds) {
    const bool logWaits = !flushLog();
    const bool retries = logWaits && (limitMilliseconds < 0 || limitMilliseconds > logRetryMilliseconds);
    events.turn(retries ? logRetryMilliseconds : limitMilliseconds);
}

void Looper::run() {
    while (!leaving && !leaveIsDue) turn(-1);
    leaving = leaveIsDue = false;
}

void Looper::setupLeave(std::uint32_t ticks) {
    leaveIsDue = false;
    if (ticks == 0)
        events.removeTimer<Looper, &Looper::leaveNow>(this);
    else
        events.addTimer<Looper, &Looper::leaveNow>(this, ticks);
}

void Looper::leaveNow() {
    leaveIsDue = true;
}

void Looper::busReceived(const message& arrived) {
    dispatch(arrived);
}

void Looper::busLost(const std::string& reason) {
    log("bus lost: ", reason);
    while (!inquiries.empty())
        inquiries.extract(inquiries.begin()).mapped()->end(errorMsg(error::disconnected, "the bus is gone"));
    leave();
}

void Looper::dispatch(const message& received) {
    switch (kindOf(received)) {
        case Kind::notification:
            return notify(received);
        case Kind::request:
            return reply(received);
        case Kind::reply:
        case Kind::error:
            return endInquiry(received);
    }
}

message Looper::ask(const message& request, std::uint32_t command, Inquiry& inquiry, std::uint32_t& number) {
    if (!bus) return errorMsg(error::disconnected, "not on a bus");
    message failure = bus->ask(request, path(), command, number);
    if (!isError(failure)) inquiries[number] = &inquiry;
    return failure;
}

void Looper::forget(std::uint32_t number) {
    if (inquiries.erase(number) > 0) bus->forget(number);
}

void Looper::endInquiry(const message& end) {
    const auto waiting = inquiries.extract(end.get_u32(field::number));
    if (!waiting.empty()) waiting.mapped()->end(end);  // else its requester gave up
}

void Looper::notify(const message& notification) {
    const Path& from = notification.get_u32_array(field::sender);
    const std::uint32_t command = notification.get_u32(field::command);
    const std::map<std::uint32_t, Handler*> targets = handlers.all();  // a call may remove handlers
    for (const auto& [id, handler] : targets) {
        const bool stays = handlers.find(id) == handler;
        if (stays && handler->isSubscribed(from, command))
            (void)handler->handle(notification);  // a notification has no answer
    }
}

void Looper::reply(const message& request) {
    message content = handlers.answer(request);
    if (content.has(field::later)) return;  // the handler ends the request itself
    message end = endOf(request, std::move(content));
    // The reply names the handler even if the request left out its number.
    end.insert_u32_array(field::sender, {program, handlerNumber(request.get_u32_array(field::destination))});
    bus->post(std::move(end));
}

}  // namespace tk
