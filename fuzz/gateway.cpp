// The daemon's Gateway as a whole, driven through sequences of what hosts, the router, the other programs and time can
// do. The input is a text of steps, each a letter and what it reads. A number N is one byte: 0 to 9 and a to z count
// from 0 to 35, any other byte for itself; each is taken modulo what there is. A text ends with a semicolon. Bytes that
// are no step are skipped, so that steps may stand in lines.
//
//   hosts      C host if               connect         M host if n           8 n connections, one after the other
//              s link text             send bytes      e link, x link        close one's side, reset
//              w which link n          leave room for 16 n bytes of answer
//              G if path how host cut  GET             A if service action argument... host cut    call an action
//              U if service url time host cut          subscribe
//              Y if service n          4 n hosts subscribe
//              R if service sid host cut, V ...        renew, unsubscribe
//              d if host text          a datagram      S if host type        a search
//   router     I if how                the record of an interface            a id if address how   of an address
//              t if bits               the state of an interface             n who                 a call to read all
//              B question how          how a question ends from now on       q question how        an answer of the
//                                                                            resolver
//   administrator  E bits              settings        i if kind, j id if kind, k id    add, set, remove an item
//              l what from             list            N                     end the daemon and start it again
//   subscribers    P how               what they do from now on              p link how            what one does now
//   time       T span
//   kernel     F call after error      a call fails once                     o                     events in reverse order
//
// At first the router has the interfaces 1, inside, and 2, outside; the daemon has items also for 3, inside, and 4,
// outside. A link of 0 is the latest. `cut` is the length of a request's pieces in 7 bytes; 0 sends it whole.
//
// After each step: the loop watches exactly what somebody owns, and comes to rest; the description, what searches find
// and what was announced are what the interfaces say; the mappings are the router's rules; each complete request has
// one answer, or waits for a limited time; only subscribers are notified; the limits hold; no log line has control
// characters. At the end nothing is left.
#include "core/gateway.h"

#include <stdlib.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "contract/gateway.h"
#include "fuzz/gateway/player.h"
#include "fuzz/gateway/world.h"
#include "fuzz/target.h"
#include "tk/names.h"
#include "tk/testing/folder.h"

namespace {

/// The folder of the daemon's files, with the stores that every input begins with: an item for each interface, and UPnP
/// switched on.
class Files {
public:
    Files() {
        std::filesystem::create_directories(folder.path + "/etc/upnp");
        for (const char* name : {"osinfo.xml", "wanipconn.xml", "logo16.gif"})
            folder.write(std::string("etc/upnp/") + name, "<scpd/>");
        fuzz::World world(folder.path);
        world.start();
        for (std::uint32_t interface = 1; interface <= 4; ++interface) {
            const auto role = interface % 2 == 1 ? contract::Role::internal : contract::Role::external;
            (void)world.request(0, tk::command::addObject, contract::RoleItem{interface, role}.toMessage());
        }
        contract::Settings settings;
        settings.enabled = true;
        (void)world.request(0, tk::command::set, settings.toMessage());
        for (const char* name : {"store/upnp", "store/upnpm"}) stores.emplace_back(name, folder.read(name));
    }
    /// Undoes what an input has stored.
    void restore() const {
        for (const auto& [name, content] : stores) folder.write(name, content);
    }
    const std::string& path() const { return folder.path; }

private:
    tk::testing::Folder folder;
    std::vector<std::pair<std::string, std::string>> stores;  // their names and contents
};

}  // namespace

/// Most of the time would go into the stacks of all that is allocated.
extern "C" const char* __asan_default_options() {
    return "malloc_context_size=5:quarantine_size_mb=64";
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ::setenv("TMPDIR", "/dev/shm", 0);  // a disk would be slow to sync
    static const Files files;
    fuzz::World world(files.path());
    world.start();
    world.check();
    fuzz::Player player(world, fuzz::text(data, size));
    player.play();
    if (player.hasConfigured()) files.restore();
    return 0;
}
