#include "ctl/session.h"

#include <set>
#include <string>

#include "contract/programs.h"
#include "ctl/failure.h"
#include "ctl/startadvice.h"
#include "ctl/text.h"
#include "tk/names.h"

namespace ctl {

Failure failureFrom(const tk::message& error, const tk::Path& asked) {
    std::uint32_t code = 0;
    std::string text;
    (void)tk::isError(error, &code, &text);  // the caller knows that it is an error
    if (text.empty()) text = "refused with error " + hexText(code);
    if (asked.empty()) return Failure(text);
    const std::string program = programText(asked.front());
    const std::string reason = program + " does not answer: " + text;
    if (code == tk::error::unreachable) return {reason, startAdvice(program)};
    if (code == tk::error::timedOut) return {reason, restartAdvice(program)};
    return Failure(text);
}

Connection::Connection(const std::string& socketPath, tk::BusConnection::Receiver* receiver) {
    auto opened = tk::BusConnection::open(socketPath, events, receiver);
    if (!opened.isOk()) throw unreachableBus(socketPath, opened.status().code());
    connection = opened.take();
}

tk::message Session::exchange(const tk::Path& path, std::uint32_t command, const tk::message& fields,
                              std::uint32_t timeout) {
    tk::message request;
    request.insert_u32_array(tk::field::destination, path);
    for (const tk::message::Field& field : fields.fields()) request.insert(field);
    tk::message end = bus.exchange(request, {}, command, timeout);
    if (end.has(tk::field::kind)) return end;
    // Made by our end of the connection, which knows only that the request failed.
    tk::stamp(request, {}, 0, tk::Kind::request, command);
    return tk::endOf(request, end);
}

tk::message Session::request(const tk::Path& path, std::uint32_t command, const tk::message& fields) {
    tk::message end = exchange(path, command, fields);
    if (tk::isError(end)) throw failureFrom(end, path);
    return end;
}

std::vector<tk::message> Session::list(const tk::Path& path, tk::message query) {
    std::vector<tk::message> objects;
    std::set<std::uint32_t> continuations;
    for (;;) {
        const tk::message page = request(path, tk::command::getAll, query);
        const auto& records = page.get_message_array(tk::field::objects);
        objects.insert(objects.end(), records.begin(), records.end());
        const std::uint32_t next = page.get_u32(tk::field::next, tk::unassigned);
        if (next == tk::unassigned) return objects;
        if (!continuations.insert(next).second)
            throw Failure("the list of " + pathText(path) + " does not end");
        query.insert_u32(tk::field::next, next);
    }
}

}  // namespace ctl
