#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "router/config.h"
#include "tk/account.h"
#include "tk/status.h"

namespace router {

/// The configuration file of one run of the router: where it is, and what holds for as long as the router runs.
/// It is read in the router, and also in the process that starts programs for it.
class ConfigFile {
public:
    /// `mayBeAbsent`: true when an absent file means an empty configuration, as long as it never was there.
    ConfigFile(std::string path, bool mayBeAbsent);

    /// Reads the file for the first time, before the router gives up any rights.
    /// Errors: as for readConfig(). Also when the file names users whom a router that root did not start cannot
    /// become.
    tk::Result<Config> read();
    /// Reads the file again, in a router that runs.
    /// Errors: as for read(), with the same owner as at first. Also when the file was there before and is
    /// gone, and when the router's user has changed: a router that gave up root's rights cannot become another
    /// user.
    tk::Result<Config> readAgain();

    /// True when the router is to give up root's rights, and become the user of the configuration.
    bool givesUpRoot() const { return becomesUser; }
    /// The name of the file.
    const std::string& name() const { return path; }

private:
    tk::Result<Config> readFile();
    tk::Status complete(Config& config) const;

    std::string path;
    bool mayBeAbsent;
    bool wasThere = false;
    uid_t owner;
    std::optional<tk::Account> user;
    bool becomesUser = false;
};

}  // namespace router
