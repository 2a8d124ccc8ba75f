#pragma once

#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "firewall/table.h"
#include "links/testing/fakekernel.h"
#include "tk/testing/commands.h"
#include "tk/testing/privatenetwork.h"
#include "tk/testing/testloop.h"

namespace firewall::testing {

inline Element element(std::uint16_t port, const char* target = "192.0.2.2",
                       std::uint16_t targetPort = 8080) {
    return {{links::testing::address("198.51.100.1"), 6, port},
            {links::testing::address(target), targetPort}};
}

inline constexpr links::AddressRange lan{0xC0000200, 0xC00002FF};  // 192.0.2.0/24

/// The rules that were committed.
class Rules final : public ElementOwner {
public:
    void change(std::span<const Element> removed, std::span<const Element> added) {
        for (const Element& element : removed) targets.erase(element.key);
        for (const Element& element : added) targets[element.key] = element.target;
    }
    std::vector<Element> elements() const override {
        std::vector<Element> all;
        for (const auto& [key, target] : targets) all.push_back({key, target});
        return all;
    }

private:
    std::map<NatKey, NatTarget> targets;
};

/// An open table in a network namespace of the test's own, looked at with nft(8).
class TableTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root";
        descriptor = ::dup(STDOUT_FILENO);  // the lowest that is free, as the table's socket will be
        ::close(descriptor);
        table->setOwner(rules);
        ASSERT_EQ(table->open().reason(), "");
    }
    using Elements = std::vector<Element>;
    std::string commit(const Elements& removed, const Elements& added) {
        const tk::Status status = table->commit(removed, added);
        if (status.isOk()) rules.change(removed, added);
        return status.reason();
    }
    static std::string nft(const std::string& arguments) {
        bool failed = false;
        return tk::testing::run("nft " + arguments + " 2>&1", failed);
    }
    void endFlows() { EXPECT_EQ(table->endFlows().reason(), ""); }
    /// The lines of the map's elements as nft lists them, and of what is live.
    static std::string mapText() { return elementsOf("map ip tk dstnat"); }
    static std::string liveText() {
        std::string text = elementsOf("set ip tk live");
        const std::string unused = " counter packets 0 bytes 0";
        for (std::size_t at = text.find(unused); at != std::string::npos; at = text.find(unused))
            text.erase(at, unused.size());
        return text;
    }
    static std::string elementsOf(const std::string& name) {
        const std::string text = nft("list " + name);
        const std::size_t start = text.find("elements");
        return start == std::string::npos ? "" : text.substr(start, text.find('}', start) + 1 - start);
    }

    /// Lets the kernel find no room for the answer to the next transaction.
    void fillSocket() const {
        const int size = 4096;
        ASSERT_EQ(::setsockopt(descriptor, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size), 0);
        const nlmsghdr idle{sizeof idle, NLMSG_NOOP, NLM_F_REQUEST | NLM_F_ACK, 0, 0};
        for (int i = 0; i < 1000; ++i)
            ASSERT_EQ(::send(descriptor, &idle, sizeof idle, 0), static_cast<ssize_t>(sizeof idle));
    }
    /// Bounds what can be sent in one transaction.
    void limitSending(int bytes) const {
        ASSERT_EQ(::setsockopt(descriptor, SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof bytes), 0);
    }
    /// As many interfaces as do not fit one transaction where the least that there is can be sent.
    static std::set<std::uint32_t> manyIndexes() {
        std::set<std::uint32_t> many;
        for (std::uint32_t index = 1; index <= 1000; ++index) many.insert(index);
        return many;
    }
    static int count(const std::string& text, const std::string& wanted) {
        int found = 0;
        for (std::size_t at = text.find(wanted); at != std::string::npos; at = text.find(wanted, at + 1))
            ++found;
        return found;
    }
    /// The table's first line, with its number: that of another table is another.
    static std::string identity() {
        const std::string text = nft("-a list table ip tk");
        return text.substr(0, text.find('\n'));
    }

    tk::testing::TestLoop loop;
    int descriptor = -1;
    Rules rules;
    std::unique_ptr<Table> table = std::make_unique<Table>();
};

}  // namespace firewall::testing
