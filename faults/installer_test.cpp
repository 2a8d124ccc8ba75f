// tkctl changes the configuration file: it holds the old text or the new, and nothing lies beside it.
#include "ctl/installer.h"

#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "contract/programs.h"
#include "ctl/failure.h"
#include "faults/driver.h"
#include "tk/names.h"
#include "tk/testing/capturedoutput.h"
#include "tk/testing/folder.h"
#include "tk/testing/scriptedbus.h"

namespace faults {

namespace {

constexpr const char* before = "[lan]\ninterfaces = [\"lan9\"]\n";
constexpr const char* accepted = "[lan]\ninterfaces = [\"lan9\"]\n\n[nat]\nlimit = 7\n";
constexpr const char* refused = "[lan]\ninterfaces = [\"lan8\"]\n";
constexpr mode_t ownMode = 0640;

/// A file that its administrator has linked to. The router reads one change of it, and refuses the other.
class InstallerWorld final : public World {
public:
    InstallerWorld() { std::filesystem::create_symlink("router.toml", link); }

    Outcome act() override {
        files.write("router.toml", before);
        EXPECT_EQ(::chmod(link.c_str(), ownMode), 0);
        Outcome outcome{change(accepted, {})};
        outcome.push_back(change(refused, tk::errorMsg(tk::error::invalid, "no such interface")));
        return outcome;
    }
    std::string contradiction() override { return broken; }

private:
    /// Has the file changed for a router that answers so.
    std::string change(const std::string& after, const tk::message& answer) {
        const std::string held = files.read("router.toml");
        const std::string failure = apply(held, after, answer);
        const bool isKept = failure.ends_with("; nothing has been changed");
        require(files.read("router.toml") == (isKept ? held : after),
                "the file holds something else than told");
        require(!files.has("router.toml.new") && !files.has("link.toml.new"), "a file is left over");
        require(std::filesystem::is_symlink(link), "the link is gone");
        struct stat status {};
        require(::stat(link.c_str(), &status) == 0 && (status.st_mode & 07777) == ownMode,
                "the mode is another");
        if (failure.empty()) return "changed";
        return isKept && failure.find("so the old one is back") != std::string::npos ? "put back" : "";
    }
    /// Returns why it failed.
    std::string apply(const std::string& held, const std::string& after, const tk::message& answer) {
        tk::testing::ScriptedBus bus;
        bus.answer(contract::path::hub(), tk::command::hubReload, answer);
        std::ostringstream out;
        ctl::Context context(out, &bus);
        ctl::SetupOptions options;
        options.file = link;
        ctl::SetupPlan plan;
        plan.fileExists = plan.isRunning = plan.knowsItems = plan.isEnabled = true;
        plan.before = held;
        plan.after = after;
        try {
            const InProgram here;
            ctl::Installer(context, options).apply(plan);
        } catch (const ctl::Failure& failure) {
            return failure.what();
        }
        return {};
    }
    void require(bool holds, const char* otherwise) {
        if (!holds) broken += std::string(otherwise) + "\n";
    }

    tk::testing::CapturedOutput output;
    tk::testing::Folder files;
    const std::string link = files.file("link.toml");
    std::string broken;
};

TEST(InstallerFaults, LeaveTheOldFileOrTheNew) {
    failEveryCall([] { return std::make_unique<InstallerWorld>(); });
}

}  // namespace

}  // namespace faults
