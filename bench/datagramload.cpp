#include "bench/datagramload.h"

#include <errno.h>
#include <stdio.h>
#include <sys/socket.h>

#include <utility>

#include "bench/arguments.h"
#include "bench/sockets.h"

namespace bench {

namespace {

constexpr int patience = 1000;             // milliseconds until an answer counts as lost
constexpr int roomForAnswers = 4'000'000;  // bytes
constexpr double nanosecondsInSecond = 1e9;

}  // namespace

DatagramLoad::DatagramLoad(const sockaddr_in& to, std::string datagram)
    : to(to), datagram(std::move(datagram)), socket(datagramsOn(0)) {
    limitWaiting(socket, patience);
    if (::setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUFFORCE, &roomForAnswers, sizeof roomForAnswers) != 0)
        fail("SO_RCVBUFFORCE");
}

void DatagramLoad::askOneByOne(std::size_t rounds, std::size_t answers) {
    times = Times(rounds);
    begun = now();
    for (std::size_t i = 0; i < rounds; ++i) {
        const std::int64_t sent = now();
        send();
        bool came = receive();
        times.add(now() - sent);
        for (std::size_t further = 1; came && further < answers; ++further) came = receive();
        if (came)
            ++count;
        else
            ++lost;
    }
    ended = now();
}

void DatagramLoad::keepInFlight(std::size_t wanted, std::size_t window) {
    begun = now();
    for (std::size_t underway = 0; count < wanted;) {
        for (; underway < window; ++underway) send();
        if (receive()) {
            ++count;
            --underway;
        } else {
            lost += std::exchange(underway, 0);
        }
        if (lost > wanted) fail("more is lost than answered");
    }
    ended = now();
}

void DatagramLoad::send() const {
    const ssize_t sent = ::sendto(socket.get(), datagram.data(), datagram.size(), 0,
                                  reinterpret_cast<const sockaddr*>(&to), sizeof to);
    if (sent < 0) fail("sendto");
}

bool DatagramLoad::receive() const {
    char bytes[2048];
    if (::recv(socket.get(), bytes, sizeof bytes, 0) >= 0) return true;
    if (errno != EAGAIN) fail("recv");
    return false;
}

void DatagramLoad::print() const {
    const double seconds = static_cast<double>(ended - begun) / nanosecondsInSecond;
    ::printf("{\"seconds\": %.6f, \"count\": %zu, \"lost\": %zu, \"answersPerSecond\": %.1f, ", seconds,
             count, lost, static_cast<double>(count) / seconds);
    times.print();
    ::printf("}\n");
}

}  // namespace bench
