#pragma once

#include <cstdint>

/// The numbers that all programs on the bus agree on: fields, commands, errors, message kinds, programs.
namespace tk {

namespace field {
// Routing, appended by the platform after a message's own fields. The destination stays where it was put.
constexpr std::uint32_t destination = 0xFF0001;  // u32[]: path of the receiver
constexpr std::uint32_t sender = 0xFF0002;       // u32[]: path of the sender, stamped by the hub
constexpr std::uint32_t number = 0xFF0003;       // u32: number of a request, repeated in its end
constexpr std::uint32_t kind = 0xFF0005;         // u32: one of Kind
constexpr std::uint32_t command = 0xFF0007;      // u32
constexpr std::uint32_t errorCode = 0xFF0008;    // u32, only in errors
constexpr std::uint32_t errorText = 0xFF0009;    // string, only in errors
// bool, only from a handler to its loop: the answer follows later.
constexpr std::uint32_t later = 0xFF000A;

// Objects.
constexpr std::uint32_t objectId = 0xFE0001;  // u32
constexpr std::uint32_t objects = 0xFE0002;   // message[], in notifications and replies
constexpr std::uint32_t next = 0xFE0003;      // u32: the next page's start; absent on the last
constexpr std::uint32_t dynamic = 0xFE0007;   // bool: goes with its maker's connection
constexpr std::uint32_t disabled = 0xFE000A;  // bool
constexpr std::uint32_t options = 0xFE000C;   // u32: what a get adds to the settings
constexpr std::uint32_t count = 0xFE000F;     // u32: of objects, in the reply to getCount
constexpr std::uint32_t deleted = 0xFE0013;   // u32: not 0 when the object was deleted
}  // namespace field

namespace command {
constexpr std::uint32_t getPolicies = 0xFE0001;
constexpr std::uint32_t getObject = 0xFE0002;
constexpr std::uint32_t setObject = 0xFE0003;
constexpr std::uint32_t getAll = 0xFE0004;
constexpr std::uint32_t addObject = 0xFE0005;
constexpr std::uint32_t removeObject = 0xFE0006;
constexpr std::uint32_t moveObject = 0xFE0007;
constexpr std::uint32_t reset = 0xFE0008;
constexpr std::uint32_t shutdown = 0xFE0009;
constexpr std::uint32_t objectsChanged = 0xFE000B;  // notification
constexpr std::uint32_t get = 0xFE000D;
constexpr std::uint32_t set = 0xFE000E;
constexpr std::uint32_t getCount = 0xFE000F;

// The hub's own, at path {0}.
constexpr std::uint32_t hubRegister = 1;  // field 1 u32: the program's number
// Field 1 u32[] path, 2 u32 command, 3 message[] filter.
constexpr std::uint32_t hubSubscribe = 2;
constexpr std::uint32_t hubUnsubscribe = 3;  // the same
// From now on shows every message, each in a hubTraced notification.
constexpr std::uint32_t hubTrace = 4;
// Notification of {0}: field 1 message[] with the one message.
constexpr std::uint32_t hubTraced = 5;
constexpr std::uint32_t hubUnregister = 6;  // field 1 u32: the number to give up
// The programs that are registered, the hub's own first: records in field::objects.
constexpr std::uint32_t hubPrograms = 7;
constexpr std::uint32_t hubReload = 8;  // the router reads its configuration again
}  // namespace command

// What the hub's commands carry.
namespace hubfield {
constexpr std::uint32_t program = 1;  // u32, of a registration and of its end
constexpr std::uint32_t path = 1;     // u32[], of a subscription
constexpr std::uint32_t command = 2;  // u32, likewise
constexpr std::uint32_t filter = 3;   // message[] with the one filter message, likewise
constexpr std::uint32_t traced = 1;   // message[] with the one message, of hubTraced
constexpr std::uint32_t number = 1;   // u32, of a record of hubPrograms
constexpr std::uint32_t pid = 2;      // u32, likewise
constexpr std::uint32_t uid = 3;      // u32, likewise
// message[] with a string 1 each, of hubReload: the names of the sections that have changed.
constexpr std::uint32_t sections = 1;
constexpr std::uint32_t section = 1;
}  // namespace hubfield

// An undo record, as a handler hands it in.
namespace undofield {
constexpr std::uint32_t request = 1;      // message[]: the request that was applied
constexpr std::uint32_t inverse = 2;      // message[]: the request that undoes it
constexpr std::uint32_t description = 3;  // string
}  // namespace undofield

namespace error {
constexpr std::uint32_t noSuchCommand = 0xFE0002;
constexpr std::uint32_t refused = 0xFE0003;
constexpr std::uint32_t noSuchObject = 0xFE0004;
constexpr std::uint32_t invalid = 0xFE0006;       // a field is missing, out of range or mistyped
constexpr std::uint32_t failed = 0xFE0008;        // the system refused; the text says why
constexpr std::uint32_t exists = 0xFE0009;        // the new object is there already
constexpr std::uint32_t unreachable = 0xFE000C;   // nobody at the destination
constexpr std::uint32_t timedOut = 0xFE000D;      // no end within the requester's time-out
constexpr std::uint32_t disconnected = 0xFE000E;  // our or the callee's connection ended first
constexpr std::uint32_t notAllowed = 0xFE000F;    // the caller's user may not do this
constexpr std::uint32_t busy = 0xFE0010;          // a limit is reached
}  // namespace error

/// What a message is to its receiver, with the numbers on the wire.
enum class Kind : std::uint32_t { request = 1, reply = 2, error = 3, notification = 4 };

namespace program {
constexpr std::uint32_t hub = 0;
constexpr std::uint32_t history = 24;  // takes the undo records
// Clients that register no program are numbered from here.
constexpr std::uint32_t firstClient = 1000;
}  // namespace program

/// The id of an object that has none yet. As the id of a change it stands for a handler's settings.
constexpr std::uint32_t unassigned = 0xFFFFFFFF;

/// The time-out of the exchanges that a handler starts.
/// Units: milliseconds.
constexpr std::uint32_t exchangeTimeout = 6000;

}  // namespace tk
