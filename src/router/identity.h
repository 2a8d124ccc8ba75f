#pragma once

#include <string>

#include "tk/handler.h"

namespace router {

/// What tells this router from all others, at {65}: 32 hexadecimal digits that stay the same over restarts.
/// They are derived from the machine's id, which they do not reveal; a machine without one gets digits by
/// chance, once.
class Identity final : public tk::Handler {
public:
    /// Reads the machine's id from the file `machineIdPath`, else the digits from the store at `storePath`.
    Identity(const std::string& machineIdPath, const std::string& storePath);

    const std::string& digits() const { return identity; }

    tk::message cmdGet(const tk::message& request) override;

private:
    std::string identity;
};

}  // namespace router
