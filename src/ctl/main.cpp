#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

#include "ctl/commandline.h"
#include "ctl/context.h"
#include "ctl/terminal.h"
#include "tk/fd.h"

int main(int argumentCount, char** arguments) {
    tk::reserveStandardDescriptors();
    ctl::Context context(std::cout);
    context.terminal = ctl::Terminal::of(STDOUT_FILENO);
    const std::vector<std::string> words(arguments + (argumentCount > 0 ? 1 : 0), arguments + argumentCount);
    return static_cast<int>(ctl::runCommandLine(words, context, std::cerr));
}
