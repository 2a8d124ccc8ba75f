// A look-up of a name: each request ends once, with the address of that name or an error.
#include "contract/resolver.h"

#include <arpa/inet.h>

#include <memory>

#include <gtest/gtest.h>

#include "contract/programs.h"
#include "faults/driver.h"
#include "faults/injection.h"
#include "resolver/resolver.h"
#include "resolver/testing/fakedns.h"
#include "tk/names.h"
#include "tk/testing/capturedoutput.h"
#include "tk/testing/folder.h"
#include "tk/testing/privatenetwork.h"
#include "tk/testing/testloop.h"

namespace faults {

namespace {

/// A resolver and its only name server.
class ResolverWorld final : public World {
public:
    ResolverWorld() { loop.looper.addHandler(0, &service); }

    Outcome act() override { return {ask("nas.example"), ask("nas.example"), ask("other.example")}; }
    std::string contradiction() override { return broken; }
    /// A failure is remembered for some seconds.
    void recover() override { loop.advance(10000); }

private:
    static constexpr std::uint32_t idleTicks = 1000000;

    std::string ask(const std::string& name) {
        loop.bus.posted.clear();
        tk::message request;
        request.insert_u32_array(tk::field::destination, {contract::program::gateway});
        request.insert_string(contract::resolvefield::name, name);
        tk::stamp(request, {1000}, ++numbers, tk::Kind::request, contract::resolveName);
        {
            const InProgram here;
            loop.looper.dispatch(request);
        }
        serve();
        if (loop.bus.posted.size() != 1)
            broken += "a request ended " + std::to_string(loop.bus.posted.size()) + " times\n";
        if (loop.bus.posted.empty() || tk::isError(loop.bus.posted.front())) return {};
        return name + " " + std::to_string(loop.bus.posted.front().get_be32(contract::resolvefield::address));
    }
    /// Lets both sides work until the request has ended, for more time than a look-up may take.
    void serve() {
        for (int turns = 0; turns < 30 && loop.bus.posted.empty(); ++turns) {
            if (!dns.isQuiet()) {
                const resolver::testing::Query query = dns.take();
                const bool isNas = query.name == "nas.example";
                dns.answer(query, {resolver::testing::addressRecord(
                                      ::inet_addr(isNas ? "192.0.2.7" : "192.0.2.8"), 60)});
            }
            const InProgram here;
            loop.looper.turn(0);
            loop.clock.advance(50);
        }
    }

    tk::testing::CapturedOutput output;
    tk::testing::Folder folder;
    tk::testing::TestLoop loop;
    resolver::testing::FakeDns dns;
    resolver::Resolver service{{idleTicks, dns.address(), {folder.file("hosts")}}};
    std::uint32_t numbers = 0;
    std::string broken;
};

TEST(ResolverFaults, EndEachRequestWithTheRightAddressOrAnError) {
    if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root for a network of its own";
    failEveryCall([] { return std::make_unique<ResolverWorld>(); });
}

}  // namespace

}  // namespace faults
