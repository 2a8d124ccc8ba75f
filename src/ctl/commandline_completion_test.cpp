// The words that completion offers.

#include "ctl/commandline.h"

#include <net/if.h>

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ctl/testing/commandlinetest.h"

namespace ctl {
namespace {

/// The words that may follow others, as completion offers them.
struct CompletionTest : CommandLineTest {
    std::vector<std::string> offered(std::vector<std::string> words) {
        words.insert(words.begin(), "__complete");
        out.str("");
        EXPECT_EQ(run(words), Status::done) << errors.str();
        std::vector<std::string> found;
        std::istringstream lines(out.str());
        for (std::string line; std::getline(lines, line);) found.push_back(line.substr(0, line.find('\t')));
        return found;
    }
    using Words = std::vector<std::string>;
};

TEST_F(CompletionTest, OffersTheWordsOfAGroup) {
    EXPECT_EQ(offered({"upnp", "interface", ""}), (Words{"list", "add", "set", "remove"}));
    EXPECT_EQ(offered({"upnp", "interface", "l"}), Words{"list"});
    EXPECT_EQ(offered({"st"}), Words{"status"});
    EXPECT_EQ(offered({"--json", "st"}), Words{"status"});
    EXPECT_EQ(offered({"help", "upnp", "s"}), Words{"set"});
}

TEST_F(CompletionTest, OffersOptionsOnceADashIsTyped) {
    EXPECT_EQ(offered({"upnp", "interface", "add", "--"}),
              (Words{"--help", "--json", "--socket", "--force"}));
    EXPECT_EQ(offered({"upnp", "interface", "add", "--f"}), Words{"--force"});
}

TEST_F(CompletionTest, OffersTheRoutersInterfaces) {
    EXPECT_EQ(offered({"upnp", "interface", "add", ""}), (Words{"lan0", "list"}));
    EXPECT_EQ(offered({"upnp", "interface", "add", "--force", "la"}), Words{"lan0"});
    EXPECT_EQ(offered({"upnp", "interface", "set", "4", "interface="}),
              (Words{"interface=lan0", "interface=list"}));
}

TEST_F(CompletionTest, OffersTheMachinesInterfacesForSetup) {
    Words names;
    struct if_nameindex* const all = ::if_nameindex();
    ASSERT_NE(all, nullptr);
    for (const struct if_nameindex* entry = all; entry->if_index != 0; ++entry)
        if (entry->if_name != std::string("lo")) names.emplace_back(entry->if_name);
    ::if_freenameindex(all);
    EXPECT_EQ(offered({"setup", "--lan", ""}), names);
    EXPECT_EQ(offered({"setup", "--yes", "--wan", ""}), names);
    EXPECT_EQ(offered({"setup", "--config", ""}), Words{});
}

TEST_F(CompletionTest, OffersWhatAnArgumentCanBe) {
    EXPECT_EQ(offered({"upnp", "interface", "add", "lan0", ""}), (Words{"internal", "external"}));
    EXPECT_EQ(offered({"upnp", "interface", "add", "lan0", "internal", ""}),
              (Words{"disabled=yes", "disabled=no"}));
    EXPECT_EQ(offered({"upnp", "set", "enabled=yes", "show-dummy-rule=n"}), Words{"show-dummy-rule=no"});
    EXPECT_EQ(offered({"nat", "test", "198.51.100.1", "80", ""}), (Words{"tcp", "udp"}));
}

TEST_F(CompletionTest, OffersNothingWhereNothingIsKnown) {
    EXPECT_EQ(offered({"bus", "call", ""}), Words{});
    EXPECT_EQ(offered({"nonsense", ""}), Words{});
    EXPECT_EQ(offered({"nat", "list", ""}), Words{});
    EXPECT_EQ(offered({"upnp", "--socket", ""}), Words{});
}

TEST_F(CompletionTest, SaysWhatACommandDoes) {
    EXPECT_EQ(run({"__complete", "upnp", "g"}), Status::done);
    EXPECT_EQ(out.str(), "get\tShow the settings\n");
}

TEST_F(CompletionTest, FailsSilentlyWithoutARouter) {
    std::ostringstream printed;
    Context lonely(printed);
    EXPECT_EQ(runCommandLine({"__complete", "--socket", "/nowhere/bus", "upnp", "interface", "add", ""},
                             lonely, errors),
              Status::done);
    EXPECT_EQ(printed.str() + errors.str(), "");
}

TEST_F(CompletionTest, EveryCommandHasAnExampleInItsHelp) {
    std::vector<Words> left{{}};
    std::size_t commands = 0;
    while (!left.empty()) {
        Words words = left.back();
        left.pop_back();
        words.push_back("");
        const Words below = offered(words);
        words.pop_back();
        out.str("");
        Words help = words;
        help.push_back("--help");
        ASSERT_EQ(run(help), Status::done) << errors.str();
        const std::string text = out.str();
        if (text.find(" COMMAND [OPTIONS]") != std::string::npos) {
            for (const std::string& word : below) {
                left.push_back(words);
                left.back().push_back(word);
            }
            continue;
        }
        ++commands;
        std::string called = "tkctl";
        for (const std::string& word : words) called += ' ' + word;
        EXPECT_NE(text.find("\nfor example: " + called), std::string::npos) << text;
    }
    EXPECT_GE(commands, 16U);
}

}  // namespace
}  // namespace ctl
