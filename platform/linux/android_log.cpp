// __android_log_print on a Linux host: one datagram a message to the system log socket.
#include "android/log.h"

#include <stdarg.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>

#include "android-base/unique_fd.h"

namespace {

constexpr size_t kMaxText = 1023;   // what the phone's log keeps of a message
constexpr int kAndroidLogInfo = 4;  // highest priority that maps to "info"
constexpr int kAndroidLogError = 6;

int SeverityOf(int prio) {
    if (prio >= kAndroidLogError) {
        return LOG_ERR;
    }
    return prio > kAndroidLogInfo ? LOG_WARNING : LOG_INFO;
}

// The connected socket, or -1 while nothing listens. One descriptor for the process's lifetime.
int LogSocket() {
    static int fd = -1;
    if (fd >= 0) {
        return fd;
    }
    android::base::unique_fd candidate(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = {AF_UNIX, "/dev/log"};
    if (candidate.ok() && connect(candidate.get(), reinterpret_cast<const sockaddr*>(&address),
                                  sizeof(address)) == 0) {
        fd = candidate.release();
    }
    return fd;
}

}  // namespace

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    char text[kMaxText + 1];
    va_list args;
    va_start(args, fmt);
    (void)vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);

    char stamp[16] = {};  // "Mmm dd hh:mm:ss"
    const time_t now = time(nullptr);
    tm local = {};
    (void)strftime(stamp, sizeof(stamp), "%b %e %H:%M:%S", localtime_r(&now, &local));

    char datagram[kMaxText + 128];
    const int length = snprintf(datagram, sizeof(datagram), "<%d>%s %s: %s",
                                LOG_USER | SeverityOf(prio), stamp, tag, text);
    const int fd = LogSocket();
    if (fd < 0 || length < 0) {
        return -1;
    }
    return send(fd, datagram, static_cast<size_t>(length), MSG_NOSIGNAL) < 0 ? -1 : 1;
}
