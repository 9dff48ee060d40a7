#include "netns.h"

#include <fcntl.h>
#include <net/if.h>
#include <net/route.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace qt {

namespace {

bool writeProc(const char* path, const std::string& text) {
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = write(fd, text.data(), text.size()) == (ssize_t)text.size();
    close(fd);
    return ok;
}

// The namespace, made once: 1 made, -1 refused, 0 not tried yet.
int enter(std::string* why) {
    static int state = 0;
    static std::string reason;
    if (state == 0) {
        const uid_t uid = geteuid();
        const gid_t gid = getegid();
        if (unshare(CLONE_NEWNET) == 0) {
            state = 1;
        } else if (unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0) {
            // The same user and group inside, so file ownership reads as before.
            const std::string u = std::to_string(uid) + " " + std::to_string(uid) + " 1\n";
            const std::string g = std::to_string(gid) + " " + std::to_string(gid) + " 1\n";
            state = writeProc("/proc/self/setgroups", "deny") && writeProc("/proc/self/uid_map", u) &&
                            writeProc("/proc/self/gid_map", g)
                        ? 1
                        : -1;
            if (state < 0) reason = "cannot map the user into a user namespace";
        } else {
            state = -1;
            reason = std::string("cannot create a network namespace: ") + strerror(errno);
        }
    }
    if (state < 0 && why != nullptr) *why = reason;
    return state;
}

}  // namespace

bool privateNetwork(bool broadcast, std::string* why) {
    if (enter(why) < 0) return false;
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    ifreq ifr{};
    strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    bool ok = ioctl(fd, SIOCGIFFLAGS, &ifr) == 0;
    ifr.ifr_flags = (short)(ifr.ifr_flags | IFF_UP | IFF_RUNNING);
    ok = ok && ioctl(fd, SIOCSIFFLAGS, &ifr) == 0;

    rtentry rt{};
    auto* dst = reinterpret_cast<sockaddr_in*>(&rt.rt_dst);
    auto* mask = reinterpret_cast<sockaddr_in*>(&rt.rt_genmask);
    dst->sin_family = AF_INET;
    mask->sin_family = AF_INET;
    rt.rt_flags = RTF_UP;
    char dev[] = "lo";
    rt.rt_dev = dev;
    if (broadcast)
        ok = ok && (ioctl(fd, SIOCADDRT, &rt) == 0 || errno == EEXIST);
    else
        ok = ok && (ioctl(fd, SIOCDELRT, &rt) == 0 || errno == ESRCH);
    close(fd);
    if (!ok && why != nullptr) *why = std::string("cannot set up loopback: ") + strerror(errno);
    return ok;
}

}  // namespace qt
