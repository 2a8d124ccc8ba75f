#pragma once

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "contract/programs.h"
#include "ctl/commandline.h"
#include "ctl/fieldspec.h"
#include "tk/names.h"
#include "tk/testing/scriptedbus.h"

namespace ctl {

/// A router with the interfaces lan0 and list, the second of which is switched off, and commands typed at it.
struct CommandLineTest : testing::Test {
    CommandLineTest() {
        using tk::testing::listOf;
        bus.answer({20, 0}, tk::command::getAll,
                   listOf({parseFields({"0xFE0001:u32=1", "0x10001:u32=1", "0x10003:u32=0", "0x10004:u32=2",
                                        "0x10005:string=lan0", "0x10006:string=Home\n", "0xFE000A:bool=no",
                                        "0x1000E:bool=yes"}),
                           parseFields({"0xFE0001:u32=2", "0x10001:u32=512", "0x10004:u32=3",
                                        "0x10005:string=list", "0xFE000A:bool=yes", "0x1000E:bool=no"})}));
        bus.answer({20, 1}, tk::command::getAll,
                   listOf({parseFields({"0xFE0001:u32=2", "1:be32=198.51.100.1", "5:u32=2"})}));
        bus.answer({80, 0}, tk::command::get, parseFields({"1:bool=no", "2:bool=no", "3:bool=yes"}));
        bus.answer({80, 0}, tk::command::getAll,
                   listOf({parseFields({"0xFE0001:u32=4", "0xFE000A:bool=no", "1:u32=1", "2:u32=2"}),
                           parseFields({"0xFE0001:u32=7", "0xFE000A:bool=yes", "1:u32=9", "2:u32=1"})}));
    }

    Status run(const std::vector<std::string>& arguments) {
        Context context(out, &bus);
        return runCommandLine(arguments, context, errors);
    }
    /// The output of a command that must succeed.
    std::string print(const std::vector<std::string>& arguments) {
        EXPECT_EQ(run(arguments), Status::done) << errors.str();
        return out.str();
    }
    /// A command's only request to upnpd, without its destination.
    tk::message sent(std::uint32_t command) {
        const auto requests = bus.requestsTo(contract::path::gateway(), command);
        EXPECT_EQ(requests.size(), 1U);
        return requests.empty() ? tk::message() : tk::withoutRouting(requests[0].content);
    }

    tk::testing::ScriptedBus bus;
    std::ostringstream out;
    std::ostringstream errors;
};

}  // namespace ctl
