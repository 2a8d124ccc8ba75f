#include "ssdp/discovery.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <string>
#include <string_view>
#include <utility>

#include "http/httpmessage.h"
#include "net/sockets.h"
#include "ssdp/names.h"
#include "tk/fd.h"
#include "tk/log.h"

namespace gateway {

namespace {

constexpr std::size_t datagramLimit = 4096;

/// True for a well-formed search. MX only has to be there: replies are never delayed.
bool isSearch(const HTTPMessage& request) {
    return request.title == "M-SEARCH * HTTP/1.1" && request.get("HOST") == ssdpHost() &&
           request.get("MAN") == "\"ssdp:discover\"" && request.has("MX") && request.has("ST");
}

/// What all answers of an address begin with, up to the headers that differ.
std::string beginOfAnswers(std::uint32_t address) {
    HTTPMessage answer(200);
    answer.add("CACHE-CONTROL", ssdpMaxAge());
    answer.add("EXT", "");
    answer.add("LOCATION", ssdpLocation(address));
    answer.add("SERVER", serverString);
    std::string text = answer.toString();
    text.resize(text.size() - crlf.size());  // without the empty line that ends it
    return text;
}

void sendAnswer(int socket, const sockaddr_in& to, const std::string& begin,
                const AdvertTargets::value_type& target) {
    constexpr std::size_t roomForNames = 32;
    std::string text;
    text.reserve(begin.size() + target.first.size() + target.second.size() + roomForNames);
    text.append(begin).append("ST: ").append(target.first).append(crlf);
    text.append("USN: ").append(target.second).append(crlf).append(crlf);
    const ssize_t sent = ::sendto(socket, text.data(), text.size(), MSG_DONTWAIT,
                                  reinterpret_cast<const sockaddr*>(&to), sizeof to);
    if (sent != static_cast<ssize_t>(text.size())) tk::log("search sendto failed");
}

}  // namespace

void Discovery::ssdpRead(int socket, std::uint32_t) {
    char bytes[datagramLimit];
    sockaddr_in from{};
    socklen_t fromLength = sizeof from;
    const ssize_t length = ::recvfrom(socket, bytes, sizeof bytes, MSG_DONTWAIT,
                                      reinterpret_cast<sockaddr*>(&from), &fromLength);
    if (length <= 0) return tk::log("search recvfrom failed");
    const HTTPMessage request(std::string_view(bytes, static_cast<std::size_t>(length)));
    if (!isSearch(request)) return;

    const SSDPInterface interface = host.findInterface(socket);
    if (answersBegin.empty() || interface.address != answersAddress)
        answersBegin = beginOfAnswers(answersAddress = interface.address);
    const std::string wanted = request.get("ST");
    const auto [first, last] = wanted == "ssdp:all" ? std::pair(advertTargets.cbegin(), advertTargets.cend())
                                                    : std::as_const(advertTargets).equal_range(wanted);
    const tk::Fd responder(openUdpSocket(interface.deviceName.c_str()));
    for (auto target = first; target != last; ++target)
        sendAnswer(responder.get(), from, answersBegin, *target);
}

}  // namespace gateway
