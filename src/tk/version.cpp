#include "tk/version.h"

#define VERSION_MARK "@(#)gateway "

// The linker is asked for this name in every program, even in one that never tells its version.
extern "C" {
extern const char gatewayVersionMark[];
const char gatewayVersionMark[] = VERSION_MARK GATEWAY_VERSION;
}

namespace tk {

const char* version() {
    return gatewayVersionMark + sizeof VERSION_MARK - 1;
}

}  // namespace tk
