#include "ssdp/testing/multicastlistener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "contract/ports.h"

namespace gateway {

MulticastListener::MulticastListener()
    : socket(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    EXPECT_EQ(::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), 0);
    EXPECT_EQ(::setsockopt(socket.get(), IPPROTO_IP, IP_RECVTTL, &on, sizeof on), 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(contract::ssdpPort);
    address.sin_addr.s_addr = inet_addr(contract::ssdpGroup);
    EXPECT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ip_mreqn group{address.sin_addr, {htonl(INADDR_LOOPBACK)}, 1};
    EXPECT_EQ(::setsockopt(socket.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group), 0);
}

std::vector<MulticastListener::Datagram> MulticastListener::take() {
    std::vector<Datagram> heard;
    for (;;) {
        char bytes[4096];
        char control[64];
        sockaddr_in from{};
        iovec part{bytes, sizeof bytes};
        msghdr header{&from, sizeof from, &part, 1, control, sizeof control, 0};
        const ssize_t length = ::recvmsg(socket.get(), &header, MSG_DONTWAIT);
        if (length < 0) return heard;
        Datagram datagram{std::string(bytes, static_cast<std::size_t>(length)), 0, ntohs(from.sin_port)};
        for (cmsghdr* item = CMSG_FIRSTHDR(&header); item; item = CMSG_NXTHDR(&header, item))
            if (item->cmsg_level == IPPROTO_IP && item->cmsg_type == IP_TTL)
                datagram.ttl = *reinterpret_cast<int*>(CMSG_DATA(item));
        heard.push_back(std::move(datagram));
    }
}

std::vector<std::string> MulticastListener::texts() {
    std::vector<std::string> heard;
    for (Datagram& datagram : take()) heard.push_back(std::move(datagram.text));
    return heard;
}

}  // namespace gateway
