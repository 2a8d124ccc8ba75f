#pragma once

#include <memory>
#include <optional>
#include <utility>

#include "http/httpservice.h"

namespace gateway {

/// The client of one request, without a connection.
class FakeClient final : public HTTPClient {
public:
    explicit FakeClient(std::uint32_t source = 0) : address(source) {}

    std::uint32_t source() const override { return address; }
    bool mayWait() const override { return mayBeKept; }
    void answer(const HTTPMessage& response) override {
        answered = response;
        wait.reset();  // as when the connection ends
    }
    /// Takes what a service returned: the response, or the wait for it.
    void take(HTTPAnswer answer) {
        if (auto* response = std::get_if<HTTPMessage>(&answer))
            answered = std::move(*response);
        else
            wait = std::get<std::unique_ptr<HTTPWait>>(std::move(answer));
    }

    bool mayBeKept = true;
    std::optional<HTTPMessage> answered;
    std::unique_ptr<HTTPWait> wait;

private:
    std::uint32_t address;
};

}  // namespace gateway
