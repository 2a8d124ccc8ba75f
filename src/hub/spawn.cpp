#include "hub/spawn.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tk/fd.h"

namespace router {

namespace {

constexpr const char* usualManager = "/usr/bin/systemctl";
constexpr const char* otherManager = "/bin/systemctl";  // where /usr is no part of the root

/// The child's side: system calls alone, for nothing else is sure to work behind a fork.
[[noreturn]] void become(const ProgramConfig& program, char* const* arguments, int report) {
    sigset_t none;
    sigemptyset(&none);
    struct sigaction usual {};
    usual.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number) (void)::sigaction(number, &usual, nullptr);
    (void)::sigprocmask(SIG_SETMASK, &none, nullptr);
    (void)::setpgid(0, 0);
    if (!program.user || tk::becomeAccount(*program.user)) ::execv(arguments[0], arguments);
    const int error = errno;
    (void)!::write(report, &error, sizeof error);
    ::_exit(127);
}

}  // namespace

std::vector<std::string> commandOf(const ProgramConfig& program) {
    if (program.unit.empty()) return program.command;
    const bool isUsual = ::access(usualManager, X_OK) == 0;
    return {isUsual ? usualManager : otherManager, "start", "--no-block", program.unit};
}

pid_t spawn(const ProgramConfig& program) {
    std::vector<std::string> words = commandOf(program);
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return -1;
    const tk::Fd reading(ends[0]);
    tk::Fd writing(ends[1]);
    const pid_t pid = ::fork();
    if (pid == 0) become(program, arguments.data(), writing.get());
    if (pid < 0) return -1;
    writing.reset();
    // The pipe closes when the command runs; else it first says why not.
    int error = 0;
    ssize_t count = 0;
    while ((count = ::read(reading.get(), &error, sizeof error)) < 0 && errno == EINTR) {
    }
    if (count == 0) return pid;
    (void)::waitpid(pid, nullptr, 0);
    errno = count == sizeof error ? error : EIO;
    return -1;
}

}  // namespace router
