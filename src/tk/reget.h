#pragma once

#include <cstdint>
#include <deque>
#include <set>

#include "tk/message.h"
#include "tk/names.h"

namespace tk {

/// Follows a list from page to page, and stops where it leads back to a page already read.
class PageTrail {
public:
    /// True when the list goes on at `next`: it is not tk::unassigned, and did not occur before.
    [[nodiscard]] bool goesOn(std::uint32_t next) { return next != unassigned && seen.insert(next).second; }

private:
    std::set<std::uint32_t> seen;
};

/// Walks the objects of one reply to a get-all query.
class Reget {
public:
    virtual ~Reget() = default;

    /// Sends the query: its destination field names the handler, its command field the command (get-all).
    /// Errors: a failed query yields no object; failed() tells.
    void setBase(const message& request);
    /// True when no object is left.
    bool isEmpty();
    /// The next object.
    /// Errors: an empty message when none is left.
    message pop();
    /// True when a query of the walk ended with an error, or with a page that leads back to an earlier one.
    bool failed() const { return queryFailed; }

    /// How long each query may take.
    /// Units: milliseconds.
    std::uint32_t timeout = exchangeTimeout;

protected:
    void query();
    /// Called when the objects of a reply are used up. True when there is another reply to ask for.
    virtual bool more() { return false; }

    message base;
    std::uint32_t next = unassigned;  // where the last reply said the list goes on

private:
    std::deque<message> objects;
    bool queryFailed = false;
    PageTrail trail;
};

/// Walks the objects of all replies: when a reply says where the list goes on, it queries the rest.
class FullReget final : public Reget {
protected:
    bool more() override;
};

}  // namespace tk
