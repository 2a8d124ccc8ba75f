#include "machine/tool.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include "tk/fd.h"

namespace machine {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::array folders{"/usr/sbin/", "/usr/bin/",        "/sbin/",
                             "/bin/",      "/usr/local/sbin/", "/usr/local/bin/"};
constexpr const char* searchPath = "PATH=/usr/sbin:/usr/bin:/sbin:/bin:/usr/local/sbin:/usr/local/bin";
constexpr const char* locale = "LC_ALL=C";  // what a tool prints is read by programs
constexpr std::size_t readSize = 65536;
constexpr int killedBase = 128;

/// The end of a pipe that is read here, and what came through it.
struct Stream {
    tk::Fd end;
    std::string content;

    /// Takes what is there, without waiting for more.
    /// Errors: EFBIG beyond the limit.
    tk::Status drain(std::size_t limit) {
        char bytes[readSize];
        while (end.isOpen()) {
            const ssize_t count = ::read(end.get(), bytes, sizeof bytes);
            if (count < 0 && errno == EINTR) continue;
            if (count < 0 && errno == EAGAIN) return {};
            if (count <= 0) end.reset();
            if (count > 0) content.append(bytes, static_cast<std::size_t>(count));
            if (content.size() > limit) return tk::Status::failure("wrote too much", EFBIG);
        }
        return {};
    }
};

/// How the child is started: its descriptors, its signals, and a process group of its own, so that all of it
/// can be killed.
class Spawning {
public:
    Spawning() {
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawnattr_init(&attributes);
        sigset_t none;
        sigset_t all;
        ::sigemptyset(&none);
        ::sigfillset(&all);
        ::posix_spawnattr_setsigmask(&attributes, &none);
        ::posix_spawnattr_setsigdefault(&attributes, &all);
        ::posix_spawnattr_setpgroup(&attributes, 0);
        ::posix_spawnattr_setflags(&attributes,
                                   POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        ::posix_spawn_file_actions_addchdir_np(&actions, "/");
    }
    Spawning(const Spawning&) = delete;
    Spawning& operator=(const Spawning&) = delete;
    ~Spawning() {
        ::posix_spawn_file_actions_destroy(&actions);
        ::posix_spawnattr_destroy(&attributes);
    }

    void connect(const tk::Fd& from, int to) { ::posix_spawn_file_actions_adddup2(&actions, from.get(), to); }
    /// Errors: an errno value; 0 when the child runs.
    int start(const std::string& path, std::vector<std::string> arguments, pid_t& child) {
        std::vector<char*> words;
        words.reserve(arguments.size() + 1);
        for (std::string& argument : arguments) words.push_back(argument.data());
        words.push_back(nullptr);
        std::string environment[] = {searchPath, locale};
        char* variables[] = {environment[0].data(), environment[1].data(), nullptr};
        return ::posix_spawn(&child, path.c_str(), &actions, &attributes, words.data(), variables);
    }

private:
    posix_spawn_file_actions_t actions{};
    posix_spawnattr_t attributes{};
};

/// A running tool: killed and reaped at the latest when this is destroyed.
class Running {
public:
    Running(pid_t child, Stream output, Stream errors)
        : child(child),
          process(static_cast<int>(::syscall(SYS_pidfd_open, child, 0))),
          streams{std::move(output), std::move(errors)} {}
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;
    ~Running() { (void)reap(/*mayWait=*/false); }

    /// Collects what the tool writes until it ends.
    tk::Result<ToolEnd> finish(const ToolLimits& limits) {
        if (!process.isOpen()) return tk::Status::ofErrno(errno);
        const Clock::time_point end = Clock::now() + std::chrono::milliseconds(limits.milliseconds);
        for (bool hasEnded = false; !hasEnded;) {
            const tk::Result<bool> waited = wait(end);
            if (!waited.isOk()) return waited.status();
            hasEnded = *waited;  // looked at before what it wrote last, so that nothing is missed
            for (Stream& stream : streams)
                if (tk::Status drained = stream.drain(limits.bytes); !drained.isOk()) return drained;
        }
        const int status = reap(/*mayWait=*/true);
        return ToolEnd{status, std::move(streams[0].content), std::move(streams[1].content)};
    }

private:
    /// Waits for output or the end; true when the tool has ended.
    tk::Result<bool> wait(Clock::time_point end) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0) return tk::Status::failure("took too long", ETIMEDOUT);
        pollfd sources[] = {
            {process.get(), POLLIN, 0}, {streams[0].end.get(), POLLIN, 0}, {streams[1].end.get(), POLLIN, 0}};
        const int ready = ::poll(sources, std::size(sources), static_cast<int>(left));
        if (ready < 0 && errno != EINTR) return tk::Status::ofErrno(errno);
        return ready > 0 && sources[0].revents != 0;
    }

    int reap(bool mayWait) {
        if (child <= 0) return 0;
        if (!mayWait) ::kill(-child, SIGKILL);
        int status = 0;
        (void)TEMP_FAILURE_RETRY(::waitpid(std::exchange(child, 0), &status, 0));
        return WIFSIGNALED(status) ? killedBase + WTERMSIG(status) : WEXITSTATUS(status);
    }

    pid_t child;
    tk::Fd process;
    Stream streams[2];
};

/// A pipe: the end that is read here never blocks.
/// Errors: none, with errno set.
std::optional<std::pair<Stream, tk::Fd>> makePipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return std::nullopt;
    std::pair<Stream, tk::Fd> made{Stream{tk::Fd(ends[0]), {}}, tk::Fd(ends[1])};
    if (::fcntl(ends[0], F_SETFL, O_NONBLOCK) != 0) return std::nullopt;
    return made;
}

tk::Result<ToolEnd> run(const std::string& path, const std::vector<std::string>& arguments,
                        const ToolLimits& limits) {
    auto output = makePipe();
    auto errors = makePipe();
    if (!output || !errors) return tk::Status::ofErrno(errno);
    pid_t child = 0;
    {
        Spawning spawning;
        spawning.connect(output->second, STDOUT_FILENO);
        spawning.connect(errors->second, STDERR_FILENO);
        const int error = spawning.start(path, arguments, child);
        if (error != 0) return tk::Status::ofErrno(error);
    }
    output->second.reset();
    errors->second.reset();
    return Running(child, std::move(output->first), std::move(errors->first)).finish(limits);
}

}  // namespace

std::string findTool(const std::string& name) {
    for (const char* folder : folders)
        if (std::string path = folder + name; ::access(path.c_str(), X_OK) == 0) return path;
    return {};
}

std::string findBeside(const std::string& name) {
    std::error_code error;
    const auto own = std::filesystem::read_symlink("/proc/self/exe", error);
    const std::string path = own.parent_path() / name;
    return !error && ::access(path.c_str(), X_OK) == 0 ? path : findTool(name);
}

bool hasSystemd() {
    return ::access("/run/systemd/system", F_OK) == 0;
}

std::string startLine(const std::string& program, const std::string& words) {
    const std::string name = program.substr(program.rfind('/') + 1);  // from the start where there is none
    return "setsid " + program + (words.empty() ? "" : ' ' + words) + " </dev/null >>/var/log/" + name +
           ".log 2>&1 &";
}

tk::Result<ToolEnd> runTool(const std::vector<std::string>& arguments, const ToolLimits& limits) {
    const std::string& name = arguments.front();
    const std::string path = name.find('/') == std::string::npos ? findTool(name) : name;
    if (path.empty()) return tk::Status::failure(name + " is not installed", ENOENT);
    tk::Result<ToolEnd> end = run(path, arguments, limits);
    return end.isOk() ? std::move(end) : end.status().prefixed(name + ": ");
}

tk::Result<std::string> outputOf(const std::vector<std::string>& arguments, const ToolLimits& limits) {
    tk::Result<ToolEnd> end = runTool(arguments, limits);
    if (!end.isOk()) return end.status();
    if (end->isOk()) return std::move(end->output);
    std::string reason = end->errors.substr(0, end->errors.find('\n'));
    if (reason.empty()) reason = "ended with status " + std::to_string(end->status);
    return tk::Status::failure(arguments.front() + ": " + reason);
}

}  // namespace machine
