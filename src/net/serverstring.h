#pragma once

#include <string>

/// How the daemon calls itself in the SERVER header. Nothing may be sent before main(), for it is made only
/// then.
extern const std::string serverString;

/// The line end of HTTP, SSDP and the XML writer. Made before main(), as above.
extern const std::string crlf;
