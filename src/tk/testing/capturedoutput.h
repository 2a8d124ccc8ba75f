#pragma once

#include <string>

#include "tk/fd.h"

namespace tk::testing {

/// Takes what is written to standard output, log lines above all, until it is destroyed.
class CapturedOutput {
public:
    CapturedOutput();
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;
    ~CapturedOutput();

    /// All that was written so far.
    std::string text() const;

private:
    Fd file;
    Fd original;
};

}  // namespace tk::testing
