#include "ctl/daemonanswer.h"

#include "contract/programs.h"
#include "ctl/runningprograms.h"
#include "ctl/startadvice.h"
#include "tk/names.h"

namespace ctl {

namespace {

/// How much longer people wait who know what for.
/// Units: milliseconds.
constexpr std::uint32_t toldWait = 7000;

bool runsDaemon(Session& session) {
    const auto programs = readPrograms(session);
    return programs && isThere(*programs, contract::program::gateway);
}

}  // namespace

tk::message askSettings(Session& session, Wait wait, std::ostream& notices) {
    tk::message end = session.exchange(contract::path::gateway(), tk::command::get, {}, patience);
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
