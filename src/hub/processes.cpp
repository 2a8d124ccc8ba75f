#include "hub/processes.h"

#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "hub/spawn.h"
#include "tk/log.h"

namespace router {

std::string endText(int status) {
    if (WIFSIGNALED(status)) return "ended by signal " + std::to_string(WTERMSIG(status));
    return "ended with status " + std::to_string(WEXITSTATUS(status));
}

pid_t OwnProcesses::start(const ProgramConfig& program, tk::Fd& process, std::string& reason) {
    const pid_t pid = spawn(program);
    if (pid > 0) process.reset(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    if (pid > 0 && process.isOpen()) return pid;
    const std::string error = tk::errorText();
    reason = commandOf(program).front() + ": " + error;
    if (pid > 0) {
        ::kill(-pid, SIGKILL);
        (void)::waitpid(pid, nullptr, 0);
    }
    return -1;
}

void OwnProcesses::signal(pid_t process, int number) {
    ::kill(-process, number);
}

bool OwnProcesses::reap(pid_t process, int& status) {
    return ::waitpid(process, &status, WNOHANG) != 0;
}

}  // namespace router
