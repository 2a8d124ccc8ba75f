#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <utility>

#include "contract/history.h"
#include "tk/handler.h"

namespace router {

/// The changes that can be undone, at {24}. Programs hand in the request, its inverse and a description.
class History final : public tk::Handler {
public:
    /// How many records are kept, and how many bytes of them. At a limit the oldest records go.
    static constexpr std::size_t limit = 100;
    static constexpr std::size_t byteLimit = std::size_t{1024} * 1024;
    /// Tells the time.
    /// Units: seconds since 1970.
    using Time = std::function<std::uint64_t()>;

    explicit History(Time time) : time(std::move(time)) {}

    tk::message cmdAddObj(const tk::message& request) override;
    tk::message cmdGetObj(const tk::message& request) override;
    tk::message cmdGetAll(const tk::message& request) override;
    tk::message cmdGetCount(const tk::message& request) override;
    tk::message cmdUnknown(const tk::message& received, std::uint32_t command) override;
    /// Forgets the records of a client that is no program: somebody else may get its number later.
    tk::message cmdDisconnected(const tk::Path& client) override;
    /// Takes the reply or error that ends the inverse.
    tk::message handleReply(const tk::message& end) override;

private:
    struct Record {
        contract::UndoRecord change;
        std::size_t bytes = 0;  // of its flat form
    };
    using Records = std::map<std::uint32_t, Record>;  // by id

    [[nodiscard]] tk::message undoLast(const tk::message& request);
    void send(const tk::message& inverse);
    void makeRoom();
    void erase(Records::iterator record);
    void takeOff(std::uint32_t id);

    Time time;
    Records records;
    std::size_t bytes = 0;  // of all records
    std::uint32_t lastId = 0;
    contract::UndoRecord undoing;  // the record that is being undone; its id is 0 when none is
    tk::message undoRequest;       // the routing fields of the request to undo it
};

}  // namespace router
