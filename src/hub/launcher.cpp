#include "hub/launcher.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <type_traits>
#include <utility>

#include "tk/log.h"

namespace hub {

namespace {

constexpr const char* gone = "the process that starts programs has ended";
constexpr const char* silent = "the process that starts programs does not answer";
constexpr const char* changedMeanwhile =
    "the programs in the configuration changed while it was read: try again";
constexpr const char* processName = "routerd-start";  // the kernel shows 15 characters

using Clock = std::chrono::steady_clock;  // the same in all processes

/// What the router asks of its launcher.
struct Request {
    enum class What : std::uint32_t { start = 1, signal = 2, reap = 3, prepare = 4, adopt = 5 };

    What what = What::start;
    std::uint32_t program = 0;          // to be started: its number
    pid_t process = 0;                  // to be signalled or reaped
    std::int32_t number = 0;            // of the signal
    std::size_t digest = 0;             // of the programs that the router has read
    Clock::time_point waitsUntil = {};  // no two have the same
};

/// What the launcher answers. The answer to a start comes with a descriptor of the process.
struct Answer {
    Clock::time_point waitedUntil = {};  // as in the request
    pid_t process = 0;                   // the one started, or -1
    std::int32_t status = 0;             // of a process that has ended
    bool hasEnded = false;
    char reason[1023] = {};  // why nothing was started or prepared; ends with 0
};

// Nothing between the fields would go along that stood on the stack of the other, more privileged side.
static_assert(std::has_unique_object_representations_v<Request>);
static_assert(std::has_unique_object_representations_v<Answer>);

std::string reasonIn(const Answer& answer) {
    return {answer.reason, ::strnlen(answer.reason, sizeof answer.reason)};
}

void putReason(Answer& answer, const std::string& reason) {
    (void)reason.copy(answer.reason, sizeof answer.reason - 1);
}

/// Tells lists of programs apart. The two sides are the same program, so any hash does.
std::size_t digestOf(const std::vector<ProgramConfig>& programs) {
    std::string text;
    const auto add = [&text](const std::string& word) { text.append(word).push_back('\0'); };
    for (const ProgramConfig& program : programs) {
        add(std::to_string(program.number));
        add(program.unit);
        add(program.user ? std::to_string(program.user->uid) : std::string());
        add(std::to_string(program.command.size()));
        for (const std::string& word : program.command) add(word);
    }
    return std::hash<std::string>()(text);
}

bool sendRequest(int socket, const Request& request) {
    return ::send(socket, &request, sizeof request, MSG_NOSIGNAL) == sizeof request;
}

bool receiveRequest(int socket, Request& request) {
    ssize_t count = 0;
    while ((count = ::recv(socket, &request, sizeof request, 0)) < 0 && errno == EINTR) {
    }
    return count == sizeof request;
}

/// Sends an answer, and the descriptor unless that is -1.
bool sendAnswer(int socket, const Answer& answer, int descriptor) {
    Answer sent = answer;
    iovec part{&sent, sizeof sent};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof descriptor)] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (descriptor >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof descriptor);
        ::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
    }
    return ::sendmsg(socket, &message, MSG_NOSIGNAL) == sizeof sent;
}

bool receiveAnswer(int socket, Answer& answer, tk::Fd& descriptor) {
    iovec part{&answer, sizeof answer};
    int received = -1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof received)] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    ssize_t count = 0;
    while ((count = ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC)) < 0 && errno == EINTR) {
    }
    const cmsghdr* header = count > 0 ? CMSG_FIRSTHDR(&message) : nullptr;
    if (header && header->cmsg_type == SCM_RIGHTS) {
        ::memcpy(&received, CMSG_DATA(header), sizeof received);
        descriptor.reset(received);
    }
    return count == sizeof answer;
}

/// Waits until an answer is there, or the launcher has ended. False when the time is over before.
bool waitForAnswer(int socket, Clock::time_point end) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0) return false;
        pollfd readable{socket, POLLIN, 0};
        if (::poll(&readable, 1, static_cast<int>(left)) > 0) return true;
    }
}

/// What an exchange with the launcher brings.
struct Outcome {
    Answer answer;
    tk::Fd process;
};

/// The router's side of one exchange. Ignores the answers to those that took too long before.
tk::Result<Outcome> exchange(int socket, Request request, std::chrono::milliseconds patience) {
    request.waitsUntil = Clock::now() + patience;
    if (!sendRequest(socket, request)) return tk::Status::failure(gone);
    while (waitForAnswer(socket, request.waitsUntil)) {
        Outcome outcome;
        if (!receiveAnswer(socket, outcome.answer, outcome.process)) return tk::Status::failure(gone);
        if (outcome.answer.waitedUntil == request.waitsUntil) return tk::Result<Outcome>(std::move(outcome));
    }
    return tk::Status::failure(silent);
}

/// The launcher's own side. It got the programs at the fork or read them itself, and accepts nothing but their
/// numbers.
class Servant {
public:
    Servant(const std::vector<ProgramConfig>& programs, Launcher::Reread reread)
        : programs(programs), prepared(programs), reread(std::move(reread)) {}

    void serve(int socket) {
        Request request;
        while (receiveRequest(socket, request)) {
            tk::Fd process;
            Answer answer = isLate(request) ? Answer() : answerTo(request, process);
            answer.waitedUntil = request.waitsUntil;
            // If the router has ended, the next request says so.
            if (!sendAnswer(socket, answer, process.get()) && process.isOpen()) endUnknown(answer.process);
        }
    }

private:
    /// True when nobody would hear what came of it any more. Signals and adoptions have no outcome.
    static bool isLate(const Request& request) {
        const bool hasOutcome = request.what != Request::What::signal && request.what != Request::What::adopt;
        return hasOutcome && Clock::now() >= request.waitsUntil;
    }

    Answer answerTo(const Request& request, tk::Fd& process) {
        switch (request.what) {
            case Request::What::start:
                return start(request.program, process);
            case Request::What::signal:
                if (started.contains(request.process)) processes.signal(request.process, request.number);
                break;
            case Request::What::reap:
                return reap(request.process);
            case Request::What::prepare:
                return prepare(request.digest);
            case Request::What::adopt:
                programs = prepared;
                break;
        }
        return {};
    }

    Answer start(std::uint32_t number, tk::Fd& process) {
        const auto program =
            std::find_if(programs.begin(), programs.end(),
                         [number](const ProgramConfig& each) { return each.number == number; });
        tk::Result<Started> done =
            program == programs.end() ? tk::Status::failure("no such program") : processes.start(*program);
        Answer answer;
        answer.process = done.isOk() ? done->pid : -1;
        putReason(answer, done.reason());
        if (!done.isOk()) return answer;
        process = std::move(done->process);
        started.insert(answer.process);
        return answer;
    }

    /// Ends a program that the router cannot be told of.
    void endUnknown(pid_t process) {
        started.erase(process);
        processes.signal(process, SIGKILL);
        (void)::waitpid(process, nullptr, 0);
    }

    Answer reap(pid_t process) {
        const std::optional<int> status = started.contains(process) ? processes.reap(process) : std::nullopt;
        Answer answer;
        answer.hasEnded = status.has_value();
        answer.status = status.value_or(0);
        if (status) started.erase(process);
        return answer;
    }

    Answer prepare(std::size_t digest) {
        tk::Result<std::vector<ProgramConfig>> read = reread();
        Answer answer;
        if (!read.isOk())
            putReason(answer, read.reason());
        else if (digestOf(*read) != digest)
            putReason(answer, changedMeanwhile);
        else
            prepared = read.take();
        return answer;
    }

    std::vector<ProgramConfig> programs;
    std::vector<ProgramConfig> prepared;
    const Launcher::Reread reread;
    OwnProcesses processes;
    std::set<pid_t> started;
};

/// Signals to the router's whole group are the router's business: it ends the programs in order.
void ignoreEnds() {
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) (void)::signal(number, SIG_IGN);
}

}  // namespace

tk::Status Launcher::open(const std::vector<ProgramConfig>& programs, Reread reread) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        return tk::Status::ofErrno("launcher", errno);
    socket.reset(ends[0]);
    const tk::Fd other(ends[1]);
    const pid_t pid = ::fork();
    if (pid == 0) {
        socket.reset();
        ignoreEnds();
        (void)::prctl(PR_SET_NAME, processName);  // only for people: any name works
        Servant(programs, std::move(reread)).serve(other.get());
        ::_exit(0);
    }
    return pid > 0 ? tk::Status() : tk::Status::ofErrno("launcher", errno);
}

tk::Result<Started> Launcher::start(const ProgramConfig& program) {
    Request request;
    request.program = program.number;
    tk::Result<Outcome> outcome = exchange(socket.get(), request, patience);
    if (!outcome.isOk()) return outcome.status();
    const pid_t pid = outcome->answer.process;
    if (outcome->process.isOpen()) return Started{pid, std::move(outcome->process)};
    if (pid <= 0) return tk::Status::failure(reasonIn(outcome->answer));
    // It runs, but nobody would hear of its end.
    signal(pid, SIGKILL);
    (void)reap(pid);
    return tk::Status::failure("there is no descriptor left for the process");
}

void Launcher::signal(pid_t process, int number) {
    Request request{.what = Request::What::signal, .process = process, .number = number};
    if (const auto outcome = exchange(socket.get(), request, patience); !outcome.isOk())
        tk::log(outcome.reason());
}

std::optional<int> Launcher::reap(pid_t process) {
    const auto outcome = exchange(socket.get(), {.what = Request::What::reap, .process = process}, patience);
    // Without the launcher nobody knows how it ended. Its descriptor says that it did.
    if (!outcome.isOk()) return 0;
    return outcome->answer.hasEnded ? std::optional<int>(outcome->answer.status) : std::nullopt;
}

tk::Status Launcher::prepare(const std::vector<ProgramConfig>& programs) {
    const auto outcome =
        exchange(socket.get(), {.what = Request::What::prepare, .digest = digestOf(programs)}, patience);
    if (!outcome.isOk()) return outcome.status();
    const std::string reason = reasonIn(outcome->answer);
    return reason.empty() ? tk::Status() : tk::Status::failure(reason);
}

void Launcher::adopt() {
    if (const auto outcome = exchange(socket.get(), {.what = Request::What::adopt}, patience);
        !outcome.isOk())
        tk::log(outcome.reason());
}

}  // namespace hub
