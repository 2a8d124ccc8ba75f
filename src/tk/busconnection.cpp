#include "tk/busconnection.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <utility>

namespace tk {

namespace {

// For what the hub has not read yet, and a frame that is arriving: room for some of the largest.
constexpr std::size_t channelBytes = 4 * frameLimit;
// For what arrives during exchanges. It is kept flat: a message of many small parts takes more than ten times
// as much.
constexpr std::size_t waitingLimit = frameLimit;
constexpr std::size_t waitingOverhead = 64;  // of each, in addition to its bytes

/// What the hub takes of this process's user.
ChannelLimits hubLimits() {
    ChannelLimits limits;
    limits.sentFrame = ::geteuid() == 0 ? frameLimit : memberFrameLimit;
    limits.priority = Runner::Priority::urgent;
    return limits;
}

/// A connected, non-blocking socket.
/// Errors: the code is an errno value.
Result<Fd> connectTo(const std::string& socketPath) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof address.sun_path) return Status::ofErrno(ENAMETOOLONG);
    std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
    Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket.isOpen() ||
        ::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        return Status::ofErrno(errno);
    return socket;
}

}  // namespace

Result<std::unique_ptr<BusConnection>> BusConnection::open(const std::string& socketPath, Runner& runner,
                                                           Receiver* receiver) {
    Result<Fd> socket = connectTo(socketPath);
    if (!socket.isOk()) return socket.status();
    return std::make_unique<BusConnection>(socket.take(), runner, receiver);
}

BusConnection::BusConnection(Fd socket, Runner& runner, Receiver* receiver)
    : receiver(receiver),
      handOnTimer(*this, runner),
      budget(channelBytes),
      channel(runner, std::move(socket), *this, budget, hubLimits()) {}

BusConnection::~BusConnection() = default;

message BusConnection::exchange(const message& request, const Path& from, std::uint32_t command,
                                std::uint32_t timeout) {
    std::uint32_t number = 0;
    message failure = send(request, from, command, number);
    return isError(failure) ? failure : awaitEnd(number, timeout);
}

message BusConnection::ask(const message& request, const Path& from, std::uint32_t command,
                           std::uint32_t& number) {
    message failure = send(request, from, command, number);
    if (!isError(failure)) asked.insert(number);
    return failure;
}

/// Sends a request, and gives it a number.
/// Errors: an error message when it cannot be sent.
message BusConnection::send(const message& request, const Path& from, std::uint32_t command,
                            std::uint32_t& number) {
    if (!channel.isOpen()) return gone();
    number = numbers = nextNumber(numbers);
    message stamped = request;
    stamp(stamped, from, number, Kind::request, command);
    if (channel.send(stamped)) return {};
    return channel.isOpen() ? errorMsg(error::invalid, "the request is too large or nested too deep")
                            : gone();
}

message BusConnection::awaitEnd(std::uint32_t number, std::uint32_t timeout) {
    const SystemClock clock;
    const std::uint64_t deadline = clock.now() + timeout;
    for (;;) {
        message arrived;
        while (channel.take(arrived)) {
            if (noteRefusal(arrived)) return gone();
            if (isForTheLoop(arrived))
                keep(arrived);
            else if (arrived.get_u32(field::number) == number)
                return arrived;
        }
        const std::uint64_t now = clock.now();
        if (now >= deadline) return errorMsg(error::timedOut, "timed out");
        if (!channel.pump(static_cast<int>(deadline - now))) return gone();
    }
}

/// True when the hub turns this connection away and says why: the first message that arrives is an error that
/// answers no request. The connection is then over.
bool BusConnection::noteRefusal(const message& arrived) {
    std::uint32_t code = 0;
    std::string text;
    if (std::exchange(hasBegun, true) || kindOf(arrived) != Kind::error ||
        arrived.get_u32(field::number) != 0 || !isError(arrived, &code, &text))
        return false;
    if (text.empty()) text = "the hub does not take the connection";
    refusal = errorMsg(code, text);
    channel.breakOff(text);
    return true;
}

/// What an exchange ends with when the connection is over.
message BusConnection::gone() {
    // If the hub closed at once, its reason may still be unread.
    if (message first; !hasBegun && channel.take(first) && !noteRefusal(first) && isForTheLoop(first))
        keep(first);
    return isError(refusal) ? refusal : errorMsg(error::disconnected, "the bus is gone");
}

void BusConnection::post(message stamped) {
    if (channel.send(stamped) || !channel.isOpen()) return;  // whoever waits for it is gone with the bus
    if (kindOf(stamped) != Kind::reply) return;
    message refusal = errorMsg(error::failed, "the reply is too large");  // each request ends
    refusal.insert_u32_array(field::destination, stamped.get_u32_array(field::destination));
    stamp(refusal, stamped.get_u32_array(field::sender), stamped.get_u32(field::number), Kind::error,
          stamped.get_u32(field::command));
    (void)channel.send(refusal);
}

/// False for an end of a request that ask() did not send, or that has already ended.
bool BusConnection::isForTheLoop(const message& arrived) {
    const Kind kind = kindOf(arrived);
    if (kind == Kind::request || kind == Kind::notification) return true;
    return asked.erase(arrived.get_u32(field::number)) > 0;
}

void BusConnection::keep(const message& arrived) {
    std::string flat = arrived.serialise();
    const std::size_t cost = flat.size() + waitingOverhead;
    const bool isRequest = kindOf(arrived) == Kind::request;
    // Half of the room is kept for what cannot be refused.
    const std::size_t room = isRequest ? waitingLimit / 2 : waitingLimit;
    if (waitingBytes + cost > room) {
        if (!isRequest) return channel.breakOff("too much arrived during one exchange");
        return post(endOf(arrived, errorMsg(error::busy, "too many requests wait for this program")));
    }
    waitingBytes += cost;
    waiting.push_back(std::move(flat));
    handOnTimer.arm(0);
}

void BusConnection::received(message arrived) {
    if (noteRefusal(arrived)) return;
    if (!isForTheLoop(arrived)) return;          // late: its requester gave up
    if (!waiting.empty()) return keep(arrived);  // after what came earlier
    if (receiver) receiver->busReceived(arrived);
}

void BusConnection::handOn() {
    // Whatever a handler's exchanges keep meanwhile has armed the timer for the next turn.
    for (std::size_t count = waiting.size(); count > 0; --count) {
        const message arrived(waiting.front());
        waitingBytes -= waiting.front().size() + waitingOverhead;
        waiting.pop_front();
        if (receiver) receiver->busReceived(arrived);
    }
}

void BusConnection::broken(const std::string& reason) {
    if (receiver) receiver->busLost(isError(refusal) ? getError(refusal) : reason);
}

}  // namespace tk
