#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tk/fd.h"

namespace tk {

/// One tick of the timers.
/// Units: milliseconds.
constexpr std::uint32_t tickMilliseconds = 10;

/// The clock of the timers, and the date. Tests replace it by a manual one.
class Clock {
public:
    virtual ~Clock() = default;
    /// Units: milliseconds since an arbitrary start; never goes back.
    virtual std::uint64_t now() const = 0;
    /// What the calendar says. It goes back and forth when the system's time is set.
    /// Units: seconds since 1970.
    virtual std::uint64_t date() const = 0;
};

/// CLOCK_MONOTONIC and, for the date, CLOCK_REALTIME.
class SystemClock final : public Clock {
public:
    std::uint64_t now() const override;
    std::uint64_t date() const override;
};

/// What a socket is watched for, and what was seen on it. The values are those of poll(2).
constexpr std::uint32_t readable = 1;
constexpr std::uint32_t writable = 4;

/// Watches sockets and runs timers, all on the caller's thread.
/// Callbacks may add and remove any registration, including their own, and may delete their own object. Once
/// a registration is removed, or its descriptor closed and used again, events from before reach nobody.
class Runner {
public:
    using SocketCallback = void (*)(void* object, int fd, std::uint32_t events);
    using TimerCallback = void (*)(void* object);
    /// Whatever is urgent is served before any other socket, and so perhaps several times a turn: the bus,
    /// signals, and listeners, whose queue in the kernel is short.
    enum class Priority : std::uint8_t { urgent, normal };

    /// At first nothing is watched and no timer is armed. A process that cannot watch sockets at all ends here,
    /// with a log line and status 1.
    /// Lifetime: the clock outlives the runner.
    explicit Runner(const Clock& clock);
    Runner(const Runner&) = delete;
    Runner& operator=(const Runner&) = delete;
    ~Runner();

    /// The date of the clock.
    /// Units: seconds since 1970.
    std::uint64_t date() const { return clock.date(); }

    /// Calls `callback` whenever `fd` is ready for one of `events`; an error or a hang-up counts as ready for
    /// them. A second call for the same descriptor replaces the first. A negative descriptor is never
    /// watched. What the kernel has no room to watch is tried again each 100 ms.
    void addSocket(int fd, void* object, SocketCallback callback, std::uint32_t events,
                   Priority priority = Priority::normal);
    /// Stops watching a descriptor; call before it is closed. An unknown one is no error.
    void removeSocket(int fd);
    /// The same for a descriptor that is closed before the next turn, which makes the kernel stop. No other
    /// descriptor of any process may refer to the same socket.
    void forgetSocket(int fd) { sockets.erase(fd); }
    /// Looks away from a watched descriptor for a moment, 100 ms at most: it is ready, but what it is ready for
    /// cannot be done now. An unknown one is no error.
    void restSocket(int fd);

    /// Calls `callback` once, `ticks` from now. A timer of the same object and callback is replaced.
    /// Units: ticks of 10 ms.
    void addTimer(void* object, TimerCallback callback, std::uint32_t ticks);
    /// Withdraws a timer; an unknown one is no error.
    void removeTimer(void* object, TimerCallback callback);
    /// True when such a timer is armed.
    bool hasTimer(void* object, TimerCallback callback) const;

    /// The typed forms, which call a member function of the object.
    template <typename T, void (T::*member)(int fd, std::uint32_t events)>
    void addSocket(int fd, T* object, std::uint32_t events, Priority priority = Priority::normal) {
        addSocket(fd, object, &socketThunk<T, member>, events, priority);
    }
    template <typename T, void (T::*member)()>
    void addTimer(T* object, std::uint32_t ticks) {
        addTimer(object, &timerThunk<T, member>, ticks);
    }
    template <typename T, void (T::*member)()>
    void removeTimer(T* object) {
        removeTimer(object, &timerThunk<T, member>);
    }
    template <typename T, void (T::*member)()>
    bool hasTimer(T* object) const {
        return hasTimer(object, &timerThunk<T, member>);
    }

    /// One turn: waits for the first event or timer, at most `limitMilliseconds` (-1: without limit), then
    /// calls everything that is due: sockets, then timers. A socket that is registered during the turn waits
    /// for the next one, unless it is urgent, and so does a timer that a timer's callback arms.
    void turn(int limitMilliseconds);

    /// The time by the runner's clock.
    /// Units: milliseconds.
    std::uint64_t now() const { return clock.now(); }
    /// How many descriptors are watched and timers armed.
    std::size_t socketCount() const { return sockets.size(); }
    std::size_t timerCount() const { return timers.size(); }
    /// The time until the next timer is due, rounded up; -1 without timers.
    /// Units: milliseconds.
    int untilNextTimer() const;

private:
    struct Registration {
        std::uint32_t generation;
        void* object;
        SocketCallback callback;
        std::uint32_t events;
        Priority priority;
    };
    using TimerKey = std::pair<void*, TimerCallback>;
    struct Due {
        std::uint64_t time;
        std::uint64_t order;  // of arming: decides among equal times
        TimerKey key;
        bool operator<(const Due& other) const {
            return std::tie(time, order) < std::tie(other.time, other.order);
        }
    };
    struct Event {
        int fd;
        std::uint32_t generation;
        std::uint32_t events;
        Priority priority;
    };

    template <typename T, void (T::*member)(int, std::uint32_t)>
    static void socketThunk(void* object, int fd, std::uint32_t events) {
        (static_cast<T*>(object)->*member)(fd, events);
    }
    template <typename T, void (T::*member)()>
    static void timerThunk(void* object) {
        (static_cast<T*>(object)->*member)();
    }

    [[nodiscard]] bool watch(int fd, const Registration& registration) const;
    void ignore(int fd, Priority priority) const;
    void watchLater(int fd);
    void watchTheRest();
    std::vector<Event> readySockets(const Fd& set, int limitMilliseconds) const;
    void callSockets(std::vector<Event> ready);
    void call(const Event& event);
    void callTimers();

    const Clock& clock;
    Fd epoll;   // all sockets
    Fd urgent;  // the urgent ones once more, to look at them alone
    std::unordered_map<int, Registration> sockets;
    std::set<int> unwatched;  // those of them that rest, or that the kernel had no room to watch
    std::uint32_t generations = 0;
    std::map<TimerKey, Due> timers;
    std::set<Due> queue;
    std::uint64_t orders = 0;
};

/// The runner of the process's loop. Call only while there is a Looper.
Runner* getRunner();

}  // namespace tk
