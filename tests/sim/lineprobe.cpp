// A plain program that knows nothing of the exchange, for tests of the preloaded object:
// raises DTR, shows the modem's lines, fills its driver, and ends by dropping DTR.
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

int main(int argc, char** argv)
{
    const int fd = argc == 2 ? open(argv[1], O_RDWR | O_NOCTTY | O_NONBLOCK) : -1;
    if (fd < 0)
        return 1;
    int lines = TIOCM_DTR;
    if (ioctl(fd, TIOCMBIS, &lines) != 0 || ioctl(fd, TIOCMGET, &lines) != 0)
        return 2;
    std::printf("lines%s%s%s%s%s\n", lines & TIOCM_DTR ? " DTR" : "", lines & TIOCM_DSR ? " DSR" : "",
                lines & TIOCM_CAR ? " DCD" : "", lines & TIOCM_RNG ? " RI" : "", lines & TIOCM_CTS ? " CTS" : "");
    char fill[5000];
    std::memset(fill, 'x', sizeof(fill));
    const ssize_t written = write(fd, fill, sizeof(fill));
    int waiting = -1;
    ioctl(fd, TIOCOUTQ, &waiting);
    pollfd entry{fd, POLLOUT, 0};
    const int ready = poll(&entry, 1, 0);
    std::printf("written %zd waiting %d ready %d\n", written, waiting, ready);
    std::fflush(stdout);
    getchar(); // until the test has seen the line
    lines = TIOCM_DTR;
    return ioctl(fd, TIOCMBIC, &lines);
}
