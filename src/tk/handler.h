#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tk/bus.h"
#include "tk/message.h"
#include "tk/names.h"
#include "tk/subscription.h"

namespace tk {

/// The base of everything on the bus: it has a path, answers commands, makes requests and tells of changes.
///
/// Each operation cmd... answers one request: it returns the reply, or an error made with errorMsg(). The
/// default is the error "no such command". An operation may itself exchange messages while it runs.
class Handler {
public:
    Handler();
    Handler(const Handler&) = delete;
    Handler& operator=(const Handler&) = delete;
    virtual ~Handler();

    /// Puts the handler on a bus under its path.
    /// Lifetime: the bus outlives the handler, or detach() comes first.
    void attach(Bus& target, Path path);
    /// Takes the handler off its bus.
    void detach();
    /// The path under which the handler was attached.
    const Path& path() const { return ownPath; }

    /// Sends `request` with `command` to the path in its destination field and waits for its end.
    /// Units: `timeout` in milliseconds.
    /// Errors: an error message (tk::isError) when it was refused, timed out, or the bus is gone.
    [[nodiscard]] message exchangeCmd(message& request, std::uint32_t command, std::uint32_t timeout);

    /// Starts or stops receiving the notifications `command` of the handler at `path`; they arrive at
    /// cmdUnknown().
    void subscribe(const Path& path, std::uint32_t command, const message& filter);
    void unsubscribe(const Path& path, std::uint32_t command, const message& filter);

    /// True while subscribed to the notifications `command` of `path`.
    bool isSubscribed(const Path& path, std::uint32_t command) const;

    /// False when it is certain that nobody would see the changes that are told: a record need not be made.
    [[nodiscard]] bool areChangesHeard() const;
    /// Tells the subscribers that object `id` changed to `data`.
    void notifyChange(std::uint32_t id, const message& data);

    /// Records an undoable change: the request that was applied, the one that undoes it, and a description.
    void sendUndo(const message& request, const message& inverse, const std::string& description);

    /// What an operation returns to answer later: it keeps a copy of its request and ends that with
    /// sendAnswer(). The program serves others meanwhile. Only for handlers of a loop with a connection to
    /// the hub.
    [[nodiscard]] static message answerLater();
    /// Ends a kept request: with an error when `answer` is one, else with a reply. Call once for each.
    void sendAnswer(const message& request, message answer);

    /// The operations, in the order in which the platform numbers them.
    virtual message loadPermData();
    virtual message savePermData();
    /// Takes every message for this handler: a request goes on to handleCmd(), a notification to
    /// cmdUnknown(), the end of a request to handleReply().
    virtual message handle(const message& received);
    /// Takes a message whose path goes on after this handler's own; by default there is nothing there.
    virtual message handleBrkpath(const message& received);
    /// Takes the end of a request that this handler made without waiting for it.
    virtual message handleReply(const message& received);
    /// Calls the operation of `command`.
    virtual message handleCmd(const message& received, std::uint32_t command);
    /// One operation for each command of the platform.
    virtual message cmdGetPolicies(const message& request);
    virtual message cmdGet(const message& request);
    virtual message cmdSet(const message& request);
    virtual message cmdReset(const message& request);
    virtual message cmdGetObj(const message& request);
    virtual message cmdSetObj(const message& request);
    virtual message cmdGetAll(const message& request);
    virtual message cmdAddObj(const message& request);
    virtual message cmdRemoveObj(const message& request);
    virtual message cmdMoveObj(const message& request);
    virtual message cmdGetCount(const message& request);
    /// Takes every other command, and every notification.
    virtual message cmdUnknown(const message& received, std::uint32_t command);
    /// The platform's command to shut down.
    virtual message cmdShutdown(const message& request);
    /// Decides whether subscribers are told of a change of `id`: an empty message, or an error that says why
    /// not.
    virtual message shouldNotify(std::uint32_t id);
    /// Somebody subscribed to, or unsubscribed from, this handler's notifications.
    virtual message subscribed(const message& request);
    virtual message unsubscribed(const message& request);
    /// The connection of a client ended: the dynamic objects that it made go.
    virtual message cmdDisconnected(const Path& client);
    /// All notifications of a change are on their way.
    virtual message notifiesSent();
    /// The record of an object, and the number of objects: errors by default.
    virtual message getObject(std::uint32_t id);
    virtual message getObjectCount();
    /// Decides whether `request` is served: an empty message, or the error that refuses it.
    virtual message checkPolicy(const message& request);
    /// Sends a stamped message that nobody waits for.
    virtual message sendMessage(message stamped);
    /// Sends a request and waits for its end.
    virtual message exchangeMessage(const message& request, std::uint32_t command, std::uint32_t timeout);

private:
    void requestSubscription(std::uint32_t hubCommand, const Subscription& wanted);

    Bus* bus = nullptr;
    Path ownPath;
    std::vector<Subscription> subscriptions;  // without their filters
};

}  // namespace tk
