#include "ctl/daemonanswer.h"

#include <algorithm>

#include "contract/programs.h"
#include "ctl/startadvice.h"
#include "tk/names.h"

namespace ctl {

namespace {

// Units: milliseconds.
constexpr std::uint32_t silentWait = 3000;  // after that people want to know why they wait
constexpr std::uint32_t toldWait = 7000;

bool runsDaemon(Session& session) {
    const tk::message end = session.exchange(contract::path::hub(), tk::command::hubPrograms, {}, silentWait);
    if (tk::isError(end)) return false;
    const auto& programs = end.get_message_array(tk::field::objects);
    return std::any_of(programs.begin(), programs.end(), [](const tk::message& program) {
        return program.get_u32(tk::hubfield::number) == contract::program::gateway;
    });
}

}  // namespace

tk::message askSettings(Session& session, Wait wait, std::ostream& notices) {
    tk::message end = session.exchange(contract::path::gateway(), tk::command::get, {}, silentWait);
    std::uint32_t code = 0;
    if (wait == Wait::moment || !tk::isError(end, &code) || code != tk::error::timedOut) return end;
    notices << "tkctl: waiting for upnpd to answer, up to 10 s\n" << std::flush;
    return session.exchange(contract::path::gateway(), tk::command::get, {}, toldWait);
}

std::string whySilent(Session& session) {
    return runsDaemon(session) ? "upnpd runs, but does not answer; " + restartAdvice("upnpd")
                               : "upnpd does not run; " + startAdvice("upnpd");
}

}  // namespace ctl
