#include "tk/status.h"

#include <errno.h>

#include <cstring>

namespace tk {

bool isShortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

Status Status::ofErrno(int error) {
    return failure(std::strerror(error), static_cast<std::uint32_t>(error));
}

Status Status::ofErrno(const std::string& what, int error) {
    return ofErrno(error).prefixed(what + ": ");
}

Status Status::prefixed(const std::string& words) const {
    return failed ? failure(words + text, number) : *this;
}

}  // namespace tk
