#pragma once

#include <string>

#include "tk/fd.h"

namespace tk::testing {

/// Captures what is written to standard output, above all log lines, until it is destroyed.
class CapturedOutput {
public:
    CapturedOutput();
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;
    ~CapturedOutput();

    /// Everything written so far.
    std::string text() const;

private:
    Fd file;
    Fd original;
};

}  // namespace tk::testing
