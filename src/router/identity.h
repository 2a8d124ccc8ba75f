#pragma once

#include <string>

#include "tk/handler.h"

namespace router {

/// What distinguishes this router from all others, at {65}: 32 hexadecimal digits, drawn at random at the
/// first start and kept from then on.
class Identity final : public tk::Handler {
public:
    /// Reads the digits from the store at `storePath`, or stores new ones there.
    explicit Identity(const std::string& storePath);

    /// The digits.
    const std::string& digits() const { return identity; }

    tk::message cmdGet(const tk::message& request) override;

private:
    std::string identity;
};

}  // namespace router
