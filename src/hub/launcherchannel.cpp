#include "hub/launcherchannel.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>

namespace router {

bool sendRequest(int socket, const LauncherRequest& request) {
    return ::send(socket, &request, sizeof request, MSG_NOSIGNAL) == sizeof request;
}

bool receiveRequest(int socket, LauncherRequest& request) {
    ssize_t count = 0;
    while ((count = ::recv(socket, &request, sizeof request, 0)) < 0 && errno == EINTR) {
    }
    return count == sizeof request;
}

bool sendAnswer(int socket, const LauncherAnswer& answer, int descriptor) {
    LauncherAnswer sent = answer;
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

bool receiveAnswer(int socket, LauncherAnswer& answer, tk::Fd& descriptor) {
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

}  // namespace router
