// The least any design that gives a shell its own terminal can do: one
// process that copies the session terminal's output to its own standard
// output and its standard input to the session, with no socket, no ring and
// no parsing. bench/pty_bench.py runs it as the "relay" contender, the bound
// for every persistent-shell tool that keeps a terminal per session.
// Usage: pty_relay <command>; with standard input not a terminal, the
// session terminal's size comes from COLUMNS and LINES.
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
    if (argc != 2)
        return 2;
    winsize size{};
    if (ioctl(0, TIOCGWINSZ, &size) != 0 && getenv("COLUMNS") && getenv("LINES")) {
        size.ws_col = static_cast<unsigned short>(atoi(getenv("COLUMNS")));
        size.ws_row = static_cast<unsigned short>(atoi(getenv("LINES")));
    }
    int master = -1;
    pid_t child = forkpty(&master, nullptr, nullptr, &size);
    if (child < 0)
        return 1;
    if (child == 0) {
        execl("/bin/sh", "sh", "-c", argv[1], static_cast<char*>(nullptr));
        _exit(127);
    }
    termios saved{};
    tcgetattr(0, &saved);
    termios raw = saved;
    cfmakeraw(&raw);
    tcsetattr(0, TCSANOW, &raw);
    static char buffer[65536];
    pollfd fds[2] = {{master, POLLIN, 0}, {0, POLLIN, 0}};
    for (;;) {
        if (poll(fds, 2, -1) < 0)
            continue;
        if (fds[0].revents) {
            ssize_t got = read(master, buffer, sizeof buffer);
            if (got <= 0)
                break;
            for (ssize_t done = 0; done < got;) {
                ssize_t wrote = write(1, buffer + done, static_cast<size_t>(got - done));
                if (wrote <= 0)
                    return 1;
                done += wrote;
            }
        }
        if (fds[1].revents) {
            ssize_t got = read(0, buffer, sizeof buffer);
            if (got <= 0)
                break;
            if (write(master, buffer, static_cast<size_t>(got)) < 0)
                break;
        }
    }
    tcsetattr(0, TCSANOW, &saved);
    waitpid(child, nullptr, 0);
    return 0;
}
