#include "tk/testing/capturedoutput.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include "tk/log.h"

namespace tk::testing {

CapturedOutput::CapturedOutput()
    : file(::memfd_create("output", MFD_CLOEXEC)), original(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)) {
    ::fflush(stdout);
    if (!file.isOpen() || !original.isOpen() || ::dup2(file.get(), STDOUT_FILENO) < 0) ::abort();
}

CapturedOutput::~CapturedOutput() {
    (void)flushLog();  // a memory file takes everything
    ::fflush(stdout);
    ::dup2(original.get(), STDOUT_FILENO);
}

std::string CapturedOutput::text() const {
    std::string content;
    char bytes[4096];
    for (;;) {
        const ssize_t count = ::pread(file.get(), bytes, sizeof bytes, static_cast<off_t>(content.size()));
        if (count <= 0) return content;
        content.append(bytes, static_cast<std::size_t>(count));
    }
}

}  // namespace tk::testing
