#include "hub/launcher.h"

#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "hub/launcherchannel.h"
#include "tk/log.h"

namespace router {

namespace {

constexpr const char* gone = "the process that starts programs has ended";
constexpr const char* processName = "routerd-start";  // the kernel shows 15 characters

/// The launcher's own side. It knows the programs from before, and takes nothing but their numbers.
class Servant {
public:
    explicit Servant(const std::vector<ProgramConfig>& programs) : programs(programs) {}

    void serve(int socket) {
        LauncherRequest request;
        while (receiveRequest(socket, request)) {
            tk::Fd process;
            const LauncherAnswer answer = answerTo(request, process);
            if (!sendAnswer(socket, answer, process.get())) return;
        }
    }

private:
    LauncherAnswer answerTo(const LauncherRequest& request, tk::Fd& process) {
        LauncherAnswer answer;
        switch (request.what) {
            case LauncherRequest::What::start:
                start(request.program, answer, process);
                break;
            case LauncherRequest::What::signal:
                if (started.contains(request.process)) processes.signal(request.process, request.number);
                break;
            case LauncherRequest::What::reap:
                answer.hasEnded =
                    started.contains(request.process) && processes.reap(request.process, answer.status);
                if (answer.hasEnded) started.erase(request.process);
                break;
        }
        return answer;
    }

    void start(std::uint32_t number, LauncherAnswer& answer, tk::Fd& process) {
        const auto program =
            std::find_if(programs.begin(), programs.end(),
                         [number](const ProgramConfig& each) { return each.number == number; });
        std::string reason = "no such program";
        answer.process = program == programs.end() ? -1 : processes.start(*program, process, reason);
        if (answer.process > 0) started.insert(answer.process);
        reason.copy(answer.reason, sizeof answer.reason - 1);
    }

    const std::vector<ProgramConfig>& programs;
    OwnProcesses processes;
    std::set<pid_t> started;
};

/// A signal to the whole group of the router is for the router, which ends the programs in order.
void ignoreEnds() {
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) (void)::signal(number, SIG_IGN);
}

}  // namespace

bool Launcher::open(const std::vector<ProgramConfig>& programs, std::string& reason) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        reason = "launcher: " + tk::errorText();
        return false;
    }
    socket.reset(ends[0]);
    const tk::Fd other(ends[1]);
    const pid_t pid = ::fork();
    if (pid == 0) {
        socket.reset();
        ignoreEnds();
        (void)::prctl(PR_SET_NAME, processName);  // to be told from the router; it works under any name
        Servant(programs).serve(other.get());
        ::_exit(0);
    }
    if (pid < 0) reason = "launcher: " + tk::errorText();
    return pid > 0;
}

pid_t Launcher::start(const ProgramConfig& program, tk::Fd& process, std::string& reason) {
    LauncherRequest request;
    request.program = program.number;
    LauncherAnswer answer;
    reason = gone;
    if (!sendRequest(socket.get(), request) || !receiveAnswer(socket.get(), answer, process)) return -1;
    reason.assign(answer.reason, ::strnlen(answer.reason, sizeof answer.reason));
    return process.isOpen() ? answer.process : -1;
}

void Launcher::signal(pid_t process, int number) {
    LauncherRequest request{LauncherRequest::What::signal, 0, process, number};
    LauncherAnswer answer;
    tk::Fd none;
    if (!sendRequest(socket.get(), request) || !receiveAnswer(socket.get(), answer, none)) tk::log(gone);
}

bool Launcher::reap(pid_t process, int& status) {
    LauncherRequest request{LauncherRequest::What::reap, 0, process, 0};
    LauncherAnswer answer;
    tk::Fd none;
    // Without the launcher nobody knows how it ended; that it did is what its descriptor says.
    if (!sendRequest(socket.get(), request) || !receiveAnswer(socket.get(), answer, none)) return true;
    status = answer.status;
    return answer.hasEnded;
}

}  // namespace router
