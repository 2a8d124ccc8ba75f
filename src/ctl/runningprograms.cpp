#include "ctl/runningprograms.h"

#include <algorithm>

#include "contract/programs.h"
#include "ctl/failure.h"
#include "tk/names.h"

namespace ctl {

std::optional<std::vector<RunningProgram>> readPrograms(Session& session) {
    const tk::message end = session.exchange(contract::path::hub(), tk::command::hubPrograms, {}, patience);
    std::uint32_t code = 0;
    if (tk::isError(end, &code) && code == tk::error::noSuchCommand) return std::nullopt;
    if (tk::isError(end)) throw failureFrom(end, contract::path::hub());
    std::vector<RunningProgram> programs;
    for (const tk::message& record : end.get_message_array(tk::field::objects))
        programs.push_back({record.get_u32(tk::hubfield::number), record.get_u32(tk::hubfield::pid),
                            record.get_u32(tk::hubfield::uid)});
    return programs;
}

bool isThere(const std::vector<RunningProgram>& programs, std::uint32_t number) {
    return std::any_of(programs.begin(), programs.end(),
                       [&](const RunningProgram& program) { return program.number == number; });
}

}  // namespace ctl
