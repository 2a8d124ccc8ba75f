// The hub among peers of several users that ask, answer, tell, forge, write in pieces, never read and leave. The input
// is a script: a letter for each step, then one character for each of its choices, of which '0' is the first. A message
// (msg) is a choice of content() and what that asks for. Letters that are no step are skipped.
//
//   peers      c user                  connect; the steps of a peer are its own now
//              p peer                  whose steps they are from here on
//              q path command number msg path          ask; an odd number with the path as its sender
//              k, as q, then kind                      ask, as a message of any kind
//              n msg path command                      tell
//              a which how msg                         read, and answer; in some ways a number or a path follows
//              m                       the last message 2, 4, 16, 64, then 1030 times
//              b length bytes          a frame of these bytes
//              B place byte            a length that lies; there is no fifth place, nor a byte for it
//              h                       hold back what is written, or no more
//              w length                write so much of what is held back
//              r                       read                            x                     leave
//   router     T span                  time passes
//              R table, L table        the rights now, and after a reload
//              F program               a program that was to be started fails
//              f room, e               leave a poor user so much of its account, and all of it again
//              O msg path from command, N ...          what the router itself asks, and tells
//
// After each step the hub has done what a second reading of its rules says (fuzz/hub/model.h), and nothing else: each
// message reaches those who may have it, once, in order and with its true sender; each request ends once; who breaks a
// rule is dropped, and nobody else. At the end nothing is left of anybody.
#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "fuzz/hub/world.h"
#include "fuzz/target.h"
#include "tk/bus.h"
#include "tk/names.h"

namespace {

using fuzz::HubWorld;
using tk::message;

constexpr std::size_t stepLimit = 150;
constexpr std::size_t peerLimit = 12;
constexpr std::size_t postedFields = 1020;  // our own handlers send nothing that is too large
constexpr std::size_t burstLengths[] = {2, 4, 16, 64, 1030};

const uid_t users[] = {0, 71, 72, HubWorld::poorUser, 74, 75};
const tk::Path paths[] = {{0},     {80},   {80, 0}, {80, 1}, {14},     {20, 0},    {20, 5}, {20},
                          {24},    {65},   {81},    {81, 3}, {20, 1},  {20, 0, 1}, {0, 1},  {24, 0},
                          {24, 1}, {1000}, {1001},  {},      {80, 80}, {14, 0},    {65, 2}, {999}};
const std::uint32_t commands[] = {1,        2,        3,        4,        5,        6,        7,
                                  8,        0,        0xFE0001, 0xFE0002, 0xFE0003, 0xFE0004, 0xFE0005,
                                  0xFE0006, 0xFE000B, 77,       0xFE000D, 0xFE000E, 0xFE000F};
const std::uint32_t programs[] = {80, 14, 81, 20, 0, 999, 1000, 24};
const std::uint32_t waits[] = {1, 100, 6000, 6099, 6100, 6101, 12200};

/// The tables of rights, the one of an ordinary router first.
const std::vector<std::vector<hub::UserRights>>& tables() {
    static const std::vector<std::vector<hub::UserRights>> all = {
        {{71, {80}},
         {72, {14}},
         {.uid = 74, .programs = {81}, .writes = {{80}, {20, 5}}, .traces = true, .undoes = true},
         {.uid = 75, .isAdmin = true}},
        {},
        {{71, {14}}, {72, {80}}, {.uid = 74, .writes = {{24}}}, {75, {24}}},
        {{.uid = 73, .writes = {{80}, {14, 0}, {24}, {0}}},
         {71, {80}},
         {71, {14}},
         {.uid = 74, .writes = {{24, 0}, {81}}, .traces = true},
         {.uid = 75, .programs = {80, 81}, .undoes = true}}};
    return all;
}

/// The script, and what it plays on.
class Play {
public:
    explicit Play(std::string_view script) : script(script) {
        world.setTable(tables().front());
        world.setNextTable(tables().front());
    }
    void run() {
        for (std::size_t i = 0; i < stepLimit && !script.empty(); ++i) step(next());
        world.finish();
    }

private:
    char next() {
        if (script.empty()) return '0';
        const char first = script.front();
        script.remove_prefix(1);
        return first;
    }
    std::size_t choice(std::size_t count) { return static_cast<unsigned char>(next() - '0') % count; }
    template <typename T, std::size_t count>
    const T& oneOf(const T (&list)[count]) {
        return list[choice(count)];
    }
    /// A path; from the 30th choice on a long one, of a length about a limit.
    tk::Path path() {
        const std::size_t which = choice(40);
        if (which < std::size(paths)) return paths[which];
        if (which < 30) return tk::Path(which - 12, 80);
        return tk::Path(226 + which, which % 2 ? 80 : 20);
    }
    void step(char what);
    void stepOfPeer(char what);
    void stepOfRouter(char what);
    message content();
    void addFields(message& made, std::size_t count);
    message request();
    void answer();
    void send(const message& whole);
    void sendFrame(const std::string& flat);
    void burst();
    void writeHeld();

    std::string_view script;
    HubWorld world;
    std::size_t peer = 0;
    std::vector<std::string> held;  // by peer: what it has begun to write
    std::vector<bool> holds;
    std::uint32_t numbers = 10;
    std::size_t bursts = 0;
    bool hadFields = false;
    message last;
};

void Play::step(char what) {
    if (what == 'c') {
        if (world.peerCount() >= peerLimit) return;
        world.connect(oneOf(users));
        held.emplace_back();
        holds.push_back(false);
        peer = world.peerCount() - 1;  // the steps that follow are its own
        return;
    }
    if (world.peerCount() == 0) return;
    if (what == 'p') peer = choice(world.peerCount());
    stepOfRouter(what);
    if (world.isOpen(peer)) stepOfPeer(what);
}

void Play::stepOfRouter(char what) {
    switch (what) {
        case 'T':
            return world.advance(oneOf(waits));
        case 'R':
            return world.setTable(tables()[choice(tables().size())]);
        case 'L':
            return world.setNextTable(tables()[choice(tables().size())]);
        case 'F':
            return world.programFailed(oneOf(programs));
        case 'f':
            return world.leaveRoom(choice(64) * 100);
        case 'e':
            return world.empty();
        case 'O':
        case 'N': {
            message sent = content();
            sent.insert_u32_array(tk::field::destination, path());
            tk::stamp(sent, {20, choice(2) ? 5U : 0U}, 0,
                      what == 'O' ? tk::Kind::request : tk::Kind::notification, oneOf(commands));
            if (sent.isParsable() && sent.fields().size() < postedFields) world.post(sent);
            return;
        }
        default:
            return;
    }
}

void Play::stepOfPeer(char what) {
    switch (what) {
        case 'r':
            return world.read(peer);
        case 'x':
            return world.leave(peer);
        case 'q':
            return send(request());
        case 'a':
            return answer();
        case 'n': {  // tells, in a name that may be forged
            message told = content();
            tk::stamp(told, path(), 0, tk::Kind::notification, oneOf(commands));
            return send(told);
        }
        case 'k': {  // as a request, but of any kind
            message odd = request();
            odd.insert_u32(tk::field::kind, static_cast<std::uint32_t>(choice(7)));
            return send(odd);
        }
        case 'b': {  // any bytes in a frame
            const std::size_t length = std::min(choice(64) * 4, script.size());
            const std::string bytes(script.substr(0, length));
            script.remove_prefix(length);
            return sendFrame(bytes);
        }
        case 'B': {  // a length that lies
            const std::size_t place = choice(5);
            std::string length(4, '\0');
            if (place < 4) length[place] = static_cast<char>(choice(256));
            held[peer] += length;
            return writeHeld();
        }
        case 'h':
            holds[peer] = !holds[peer];
            return writeHeld();
        case 'w': {
            const std::string part = held[peer].substr(0, 1 + choice(64));
            held[peer].erase(0, part.size());
            return world.write(peer, part);
        }
        case 'm':
            return burst();
        default:
            return;
    }
}

/// What a message says beside its routing.
message Play::content() {
    message made;
    switch (choice(20)) {
        case 0:
            break;
        case 2:
        case 3:
            made.insert_u32_array(1, path());
            made.insert_u32(2, oneOf(commands));
            break;
        case 4:
            made.insert_u32_array(1, path());
            made.insert_u32(2, oneOf(commands));
            made.insert_message_array(3, std::vector<message>(choice(3)));
            break;
        case 5:
            made.insert_u32_array(1, path());
            made.insert_u32(2, oneOf(commands));
            made.insert_message_array(3, {content()});
            break;
        case 6:
            made.insert_string(5, std::string(choice(64) * 300, 'x'));
            break;
        case 7:
            for (std::size_t depth = choice(20); depth > 0; --depth) {
                message outer;
                outer.insert_message_array(7, {made});
                made = outer;
            }
            break;
        case 8:
            addFields(made, 1010 + choice(20));
            break;
        case 9:
            made.insert_u32(tk::field::errorCode, 7);
            break;
        case 10:
            made.insert_bool(tk::field::later, true);
            break;
        default:
            made.insert_u32(1, oneOf(programs));
            break;
    }
    return made;
}

/// As many fields as a message may have, or nearly. That takes time, so each input does it once.
void Play::addFields(message& made, std::size_t count) {
    if (std::exchange(hadFields, true)) return;
    for (std::uint32_t id = 100; made.fields().size() < count; ++id) made.insert_bool(id, true);
}

message Play::request() {
    const tk::Path to = path();
    const std::uint32_t command = oneOf(commands);
    const std::size_t number = choice(8);
    message made = content();
    made.insert_u32_array(tk::field::destination, to);
    tk::stamp(made, number % 2 ? path() : tk::Path(),
              number < 4 ? static_cast<std::uint32_t>(number) : ++numbers, tk::Kind::request, command);
    if (number % 2 == 0) made.remove(tk::field::sender);
    return made;
}

/// Answers a request that the peer has read, or says that it does.
void Play::answer() {
    world.read(peer);
    if (!world.isOpen(peer)) return;
    const std::vector<message>& requests = world.requestsOf(peer);
    const std::size_t which = choice(16);
    const message asked = which < requests.size() ? requests[requests.size() - 1 - which] : last;
    const std::size_t how = choice(8);
    message end = tk::endOf(asked, content());
    if (how == 1) end.insert_u32(tk::field::number, static_cast<std::uint32_t>(choice(64)));
    if (how == 2 || how == 3) end.insert_u32_array(tk::field::destination, path());
    if (how == 4) end.insert_u32_array(tk::field::sender, path());
    if (how == 5) end.remove(tk::field::number);
    send(end);
    if (how == 6 && world.isOpen(peer)) send(end);
}

void Play::send(const message& whole) {
    last = whole;
    sendFrame(whole.serialise());
}

void Play::sendFrame(const std::string& flat) {
    std::string& waiting = held[peer];
    for (std::size_t i = 0; i < 4; ++i) waiting += static_cast<char>(flat.size() >> (8 * i));
    waiting += flat;
    if (!holds[peer]) writeHeld();
}

void Play::writeHeld() {
    if (holds[peer]) return;
    world.write(peer, held[peer]);
    held[peer].clear();
}

/// The last message again and again, each with a number and a command of its own. Only the last burst is as long as
/// the hub's limits, so that not each input takes its time.
void Play::burst() {
    if (bursts == std::size(burstLengths) || holds[peer] || last.serialise().size() > 256) return;
    const std::size_t count = burstLengths[bursts++];
    message again = last;
    for (std::size_t i = 0; i < count && world.isOpen(peer); ++i) {
        again.insert_u32(tk::field::number, ++numbers);
        if (again.has(2)) again.insert_u32(2, numbers);
        send(again);
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ::testing::FLAGS_gtest_break_on_failure = true;  // what the peers expect of their sockets holds, too
    Play(fuzz::text(data, size)).run();
    return 0;
}
