#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "tk/fd.h"
#include "tk/timer.h"

namespace tk {

/// The service manager that started this process, if one did and wants to hear of it. It is told by datagrams,
/// whose texts are those that sd_notify(3) describes. Where there is none, nothing happens.
/// Errors: what cannot be sent within a second is lost, and the log says so.
class ServiceManager final {
public:
    /// Takes what the manager said out of the environment: no program that is started from here may speak, or
    /// be waited for, in this one's place.
    ServiceManager();
    ServiceManager(const ServiceManager&) = delete;
    ServiceManager& operator=(const ServiceManager&) = delete;

    /// The process serves from now on. The status is a line for people.
    void tellReady(std::string_view status) const;
    /// The process has begun to end.
    void tellStopping() const;
    /// How things stand, or why the process cannot serve: a line for people.
    void tellStatus(std::string_view status) const;

    /// Shows the manager that the loop of the process still turns, twice in the time after which it would take
    /// the process for hung. Without such a time no timer runs.
    class Watchdog final {
    public:
        /// Lifetime: the loop and the manager outlive the watchdog.
        explicit Watchdog(const ServiceManager& manager);

    private:
        void due();

        const ServiceManager& manager;
        Timer<Watchdog, &Watchdog::due> timer{*this};
    };

private:
    void openSocket(std::string_view name);
    void tell(const std::string& text) const;

    Fd socket;
    sockaddr_un address{};
    socklen_t length = 0;          // of the address
    std::uint32_t aliveTicks = 0;  // between two signs of life; 0: none is wanted
};

}  // namespace tk
