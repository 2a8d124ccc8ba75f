#include "tk/runner.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <time.h>

#include <algorithm>
#include <utility>

#include "tk/log.h"

namespace tk {

static_assert(readable == EPOLLIN && writable == EPOLLOUT);

namespace {

constexpr int eventsPerTurn = 256;

// How long one turn serves sockets, in milliseconds. Then come timers, and in the next turn the urgent
// sockets; what was not served is still ready then.
constexpr std::uint64_t turnLimit = 100;

// 100 ms: after that a descriptor is looked at again that rests, or that the kernel had no room to watch.
constexpr std::uint32_t retryTicks = 10;

/// Adds a descriptor to a set, or changes it there.
/// Errors: false when the kernel has no room for it now.
bool put(const Fd& set, int fd, epoll_event& event) {
    if (epoll_ctl(set.get(), EPOLL_CTL_ADD, fd, &event) == 0) return true;
    if (errno == EEXIST && epoll_ctl(set.get(), EPOLL_CTL_MOD, fd, &event) == 0) return true;
    return errno != ENOMEM && errno != ENOSPC;
}

}  // namespace

std::uint64_t SystemClock::now() const {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1000 +
           static_cast<std::uint64_t>(time.tv_nsec) / 1000000;
}

std::uint64_t SystemClock::date() const {
    return static_cast<std::uint64_t>(::time(nullptr));
}

Runner::Runner(const Clock& clock)
    : clock(clock), epoll(epoll_create1(EPOLL_CLOEXEC)), urgent(epoll_create1(EPOLL_CLOEXEC)) {
    if (epoll.isOpen() && urgent.isOpen()) return;
    log("cannot watch sockets: ", errorText());
    ::exit(1);
}

Runner::~Runner() = default;

void Runner::addSocket(int fd, void* object, SocketCallback callback, std::uint32_t events,
                       Priority priority) {
    if (fd < 0) return;
    const auto former = sockets.find(fd);
    const bool wasUrgent = former != sockets.end() && former->second.priority == Priority::urgent;
    const Registration registration{++generations, object, callback, events, priority};
    sockets.insert_or_assign(fd, registration);
    if (!watch(fd, registration)) watchLater(fd);
    if (wasUrgent && priority != Priority::urgent) epoll_ctl(urgent.get(), EPOLL_CTL_DEL, fd, nullptr);
}

bool Runner::watch(int fd, const Registration& registration) const {
    epoll_event event{};
    event.events = registration.events;
    event.data.u64 =
        static_cast<std::uint64_t>(registration.generation) << 32 | static_cast<std::uint32_t>(fd);
    const bool isWatched = put(epoll, fd, event);
    return (registration.priority != Priority::urgent || put(urgent, fd, event)) && isWatched;
}

void Runner::watchLater(int fd) {
    unwatched.insert(fd);
    if (!hasTimer<Runner, &Runner::watchTheRest>(this))
        addTimer<Runner, &Runner::watchTheRest>(this, retryTicks);
}

void Runner::watchTheRest() {
    for (const int fd : std::exchange(unwatched, {})) {
        const auto registration = sockets.find(fd);
        if (registration != sockets.end() && !watch(fd, registration->second)) watchLater(fd);
    }
}

void Runner::restSocket(int fd) {
    const auto registration = sockets.find(fd);
    if (registration == sockets.end()) return;
    ignore(fd, registration->second.priority);
    watchLater(fd);
}

void Runner::ignore(int fd, Priority priority) const {
    epoll_ctl(epoll.get(), EPOLL_CTL_DEL, fd, nullptr);
    if (priority == Priority::urgent) epoll_ctl(urgent.get(), EPOLL_CTL_DEL, fd, nullptr);
}

void Runner::removeSocket(int fd) {
    const auto registration = sockets.extract(fd);
    if (!registration.empty()) ignore(fd, registration.mapped().priority);
}

void Runner::addTimer(void* object, TimerCallback callback, std::uint32_t ticks) {
    removeTimer(object, callback);
    const TimerKey key{object, callback};
    const Due due{clock.now() + std::uint64_t{ticks} * tickMilliseconds, ++orders, key};
    timers.emplace(key, due);
    queue.insert(due);
}

void Runner::removeTimer(void* object, TimerCallback callback) {
    const auto timer = timers.find({object, callback});
    if (timer == timers.end()) return;
    queue.erase(timer->second);
    timers.erase(timer);
}

bool Runner::hasTimer(void* object, TimerCallback callback) const {
    return timers.contains({object, callback});
}

int Runner::untilNextTimer() const {
    if (queue.empty()) return -1;
    const std::uint64_t now = clock.now();
    const std::uint64_t due = queue.begin()->time;
    constexpr std::uint64_t longest = std::uint64_t{3600} * 1000;  // keeps the difference within an int
    return due <= now ? 0 : static_cast<int>(std::min(due - now, longest));
}

void Runner::turn(int limitMilliseconds) {
    int wait = untilNextTimer();
    if (wait < 0 || (limitMilliseconds >= 0 && limitMilliseconds < wait)) wait = limitMilliseconds;
    callSockets(readySockets(epoll, wait));
    callTimers();
}

std::vector<Runner::Event> Runner::readySockets(const Fd& set, int limitMilliseconds) const {
    epoll_event events[eventsPerTurn];
    const int count = epoll_wait(set.get(), events, eventsPerTurn, limitMilliseconds);
    std::vector<Event> ready;
    for (int i = 0; i < count; ++i) {
        const auto fd = static_cast<int>(static_cast<std::uint32_t>(events[i].data.u64));
        const auto generation = static_cast<std::uint32_t>(events[i].data.u64 >> 32);
        const auto registration = sockets.find(fd);
        if (registration == sockets.end() || registration->second.generation != generation) continue;
        const bool broken = (events[i].events & (EPOLLERR | EPOLLHUP)) != 0;
        const std::uint32_t wanted = registration->second.events;
        ready.push_back(
            {fd, generation, broken ? wanted : events[i].events & wanted, registration->second.priority});
    }
    return ready;
}

/// Urgent sockets come first, and are looked at again before each other one but the first.
void Runner::callSockets(std::vector<Event> ready) {
    std::stable_sort(ready.begin(), ready.end(),
                     [](const Event& left, const Event& right) { return left.priority < right.priority; });
    const std::uint64_t limit = clock.now() + turnLimit;
    bool isFirst = true;
    for (std::size_t i = 0; i < ready.size() && (i == 0 || clock.now() < limit); ++i) {
        if (ready[i].priority == Priority::normal && !std::exchange(isFirst, false))
            for (const Event& event : readySockets(urgent, 0)) call(event);
        call(ready[i]);
    }
}

void Runner::call(const Event& event) {
    const auto registration = sockets.find(event.fd);
    if (registration == sockets.end() || registration->second.generation != event.generation) return;
    const Registration target = registration->second;
    const LogBatch lines;
    target.callback(target.object, event.fd, event.events);
}

void Runner::callTimers() {
    const std::uint64_t now = clock.now();
    const std::uint64_t lastOrder = orders;  // timers armed from here on wait for the next turn
    for (auto next = queue.begin(); next != queue.end() && next->time <= now;) {
        if (next->order > lastOrder) {
            ++next;
            continue;
        }
        const TimerKey key = next->key;
        queue.erase(next);
        timers.erase(key);
        {
            const LogBatch lines;
            key.second(key.first);
        }
        next = queue.begin();
    }
}

}  // namespace tk
