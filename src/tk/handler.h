#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tk/bus.h"
#include "tk/message.h"
#include "tk/names.h"
#include "tk/subscription.h"

namespace tk {

/// Everything that lives on the bus: has a path, answers commands, makes requests and tells of changes.
///
/// The operations cmd... answer one request each: they return the reply, or an error made with errorMsg();
/// the default is the error "no such command". They may exchange messages themselves while they run.
class Handler {
public:
    Handler();
    Handler(const Handler&) = delete;
    Handler& operator=(const Handler&) = delete;
    virtual ~Handler();

    /// Puts the handler on a bus under its path.
    /// Lifetime: the bus outlives the handler, or detach() comes first.
    void attach(Bus& target, Path path);
    void detach();
    const Path& path() const { return ownPath; }

    /// Sends `request` with `command` to the path in its destination field and waits for its end.
    /// Units: milliseconds.
    /// Errors: an error message (tk::isError) when it was refused, timed out, or the bus is gone.
    [[nodiscard]] message exchangeCmd(message& request, std::uint32_t command, std::uint32_t timeout);

    /// Starts and stops receiving the notifications `command` of the handler at `path`; they arrive at
    /// cmdUnknown.
    void subscribe(const Path& path, std::uint32_t command, const message& filter);
    void unsubscribe(const Path& path, std::uint32_t command, const message& filter);

    /// True while notifications `command` of `path` are wanted here.
    bool isSubscribed(const Path& path, std::uint32_t command) const;

    /// Tells the subscribers that object `id` changed to `data`.
    void notifyChange(std::uint32_t id, const message& data);

    /// Records an undoable change: the request that was applied, what would undo it, and its description.
    void sendUndo(const message& request, const message& inverse, const std::string& description);

    /// What an operation returns when it keeps a copy of its request, to end it later with sendAnswer();
    /// meanwhile the program serves others. Only for handlers of a loop with a connection to the hub.
    [[nodiscard]] static message answerLater();
    /// Ends a request that was kept: a reply, or an error when `answer` is one. To be called once for each.
    void sendAnswer(const message& request, message answer);

    // The commands, in the order in which the platform numbers them.
    virtual message loadPermData();
    virtual message savePermData();
    /// Entry of every message for this handler: a request goes on to handleCmd, a notification to
    /// cmdUnknown, the end of a request to handleReply.
    virtual message handle(const message& received);
    /// Entry of a message whose path goes on behind this handler's own; there is nothing there by default.
    virtual message handleBrkpath(const message& received);
    virtual message handleReply(const message& received);
    /// Calls the operation of `command`.
    virtual message handleCmd(const message& received, std::uint32_t command);
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
    /// Every other command, and every notification.
    virtual message cmdUnknown(const message& received, std::uint32_t command);
    virtual message cmdShutdown(const message& request);
    /// May a change of `id` be told to subscribers? An empty message, or the error that says why not.
    virtual message shouldNotify(std::uint32_t id);
    /// Somebody subscribed to, or unsubscribed from, this handler's notifications.
    virtual message subscribed(const message& request);
    virtual message unsubscribed(const message& request);
    /// The connection of a client ended: what it made dynamically goes.
    virtual message cmdDisconnected(const Path& client);
    /// All notifications of a change are on their way.
    virtual message notifiesSent();
    virtual message getObject(std::uint32_t id);
    virtual message getObjectCount();
    /// May `request` be served? An empty message, or the error that refuses it.
    virtual message checkPolicy(const message& request);
    /// Sends a message that is stamped already and that nobody waits for.
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
