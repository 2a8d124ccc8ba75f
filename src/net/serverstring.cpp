#include "net/serverstring.h"

#include "tk/platform.h"

// No blank between the version and "UPnP/1.0": clients see exactly this text.
const std::string serverString = "Quillnet/" + tk::getOSVersion() + "UPnP/1.0 Vantorel UPnP/1.0";

const std::string crlf = "\r\n";
