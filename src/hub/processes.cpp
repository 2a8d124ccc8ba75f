#include "hub/processes.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string_view>
#include <utility>

namespace hub {

namespace {

constexpr std::string_view triggerText = "start\n";
constexpr const char* noTrigger = "this file is no trigger, so it stays as it is: remove it, or name another";
constexpr const char* usualManager = "/usr/bin/systemctl";
constexpr const char* otherManager = "/bin/systemctl";  // where /usr is no part of the root

/// Opens a trigger to be written: never through a link, and never waiting for a reader.
tk::Fd openTrigger(const std::string& path) {
    constexpr int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    tk::Fd file(::open(path.c_str(), flags, 0644));
    if (file.isOpen() || errno != ENOENT) return file;
    if (::mkdir(path.substr(0, path.rfind('/')).c_str(), 0755) != 0) return file;
    return tk::Fd(::open(path.c_str(), flags, 0644));
}

/// True for a file that only ever was a trigger. The configuration may name another one by mistake.
bool isTrigger(const tk::Fd& file) {
    struct stat status {};
    return ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == ::geteuid() &&
           status.st_nlink == 1 && (status.st_size == 0 || status.st_size == ssize_t{triggerText.size()});
}

/// The child's side. System calls only: nothing else is sure to work after a fork.
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

/// What the child says through the pipe, which closes when the command runs.
/// Errors: why the command does not run.
tk::Status outcomeOf(const tk::Fd& report) {
    int error = 0;
    ssize_t count = 0;
    while ((count = ::read(report.get(), &error, sizeof error)) < 0 && errno == EINTR) {
    }
    if (count == 0) return {};
    return tk::Status::ofErrno(count == sizeof error ? error : EIO);
}

/// Starts a program.
tk::Result<pid_t> spawn(const ProgramConfig& program, std::vector<std::string> words) {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return tk::Status::ofErrno(errno);
    const tk::Fd reading(ends[0]);
    tk::Fd writing(ends[1]);
    const pid_t pid = ::fork();
    if (pid == 0) become(program, arguments.data(), writing.get());
    if (pid < 0) return tk::Status::ofErrno(errno);
    writing.reset();
    tk::Status outcome = outcomeOf(reading);
    if (outcome.isOk()) return pid;
    (void)::kill(pid, SIGKILL);  // it ends anyway, unless what it said could not be read
    (void)::waitpid(pid, nullptr, 0);
    return outcome;
}

}  // namespace

std::vector<std::string> commandOf(const ProgramConfig& program) {
    if (program.unit.empty()) return program.command;
    const bool isUsual = ::access(usualManager, X_OK) == 0;
    return {isUsual ? usualManager : otherManager, "start", "--no-block", program.unit};
}

tk::Status pullTrigger(const std::string& path) {
    const mode_t mask = ::umask(0022);  // else nobody might be able to watch it
    const tk::Fd file = openTrigger(path);
    ::umask(mask);  // cannot fail, and leaves errno alone
    if (!file.isOpen()) return tk::Status::ofErrno(path, errno);
    if (!isTrigger(file)) return tk::Status::failure(path + ": " + noTrigger);
    if (::write(file.get(), triggerText.data(), triggerText.size()) < 0)
        return tk::Status::ofErrno(path, errno);
    return {};
}

std::string endText(int status) {
    if (WIFSIGNALED(status)) return "ended by signal " + std::to_string(WTERMSIG(status));
    return "ended with status " + std::to_string(WEXITSTATUS(status));
}

tk::Result<Started> OwnProcesses::start(const ProgramConfig& program) {
    const std::vector<std::string> words = commandOf(program);
    if (words.empty()) return tk::Status::failure("there is no command that starts it");
    const tk::Result<pid_t> pid = spawn(program, words);
    if (!pid.isOk()) return pid.status().prefixed(words.front() + ": ");
    tk::Fd process(static_cast<int>(::syscall(SYS_pidfd_open, *pid, 0)));
    if (process.isOpen()) return Started{*pid, std::move(process)};
    tk::Status failure = tk::Status::ofErrno(words.front(), errno);
    ::kill(-*pid, SIGKILL);
    (void)::waitpid(*pid, nullptr, 0);
    return failure;
}

void OwnProcesses::signal(pid_t process, int number) {
    ::kill(-process, number);
}

std::optional<int> OwnProcesses::reap(pid_t process) {
    int status = 0;
    return ::waitpid(process, &status, WNOHANG) != 0 ? std::optional(status) : std::nullopt;
}

}  // namespace hub
