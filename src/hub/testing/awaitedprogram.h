#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "hub/testing/fakeprocesses.h"
#include "hub/testing/testhub.h"
#include "tk/names.h"

namespace hub::testing {

/// A client asks for program 80, and the program comes to the bus when a test lets it.
/// Lifetime: a test's own Activation goes first; close the hub before that.
class AwaitedProgram : public ::testing::Test {
protected:
    static constexpr std::uint32_t command = 77;
    static constexpr std::uint32_t second = 100;  // ticks

    /// Lets a client ask the program, and returns what has come back.
    std::vector<tk::message> ask() {
        client->request({80}, command);
        bus.settle();
        return client->take();
    }
    /// The program comes to the bus. Returns the requests that it finds there after the reply to its own.
    std::vector<tk::message> come() {
        program = bus.connect();
        tk::message content;
        content.insert_u32(1, 80);
        program->request({0}, tk::command::hubRegister, content);
        bus.settle();
        std::vector<tk::message> arrived = program->take();
        EXPECT_FALSE(arrived.empty());
        if (!arrived.empty()) arrived.erase(arrived.begin());
        return arrived;
    }

    FakeProcesses processes;
    TestHub bus;
    std::unique_ptr<TestClient> client = bus.connect();
    std::unique_ptr<TestClient> program;
};

}  // namespace hub::testing
