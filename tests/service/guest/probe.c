/* Run by the service's manager before the gateway, with what the gateway may: tells on standard error what it could do. */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

static void tell(const char *what, int result) {
    fprintf(stderr, "probe %s: %s\n", what, result < 0 ? strerror(errno) : "done");
}

static int opened(const char *path, int flags) {
    int file = open(path, flags, 0600);
    if (file >= 0)
        close(file);
    return file;
}

int main(void) {
    struct timeval slew = {0, 1000}, now;
    tell("adjtime", adjtime(&slew, NULL));
    gettimeofday(&now, NULL);
    tell("settimeofday", settimeofday(&now, NULL));
    tell("serial port", opened("/dev/ttyQX1", O_RDWR | O_NOCTTY | O_NONBLOCK));
    tell("disk", opened("/dev/vda", O_RDONLY));
    tell("/etc", opened("/etc/probe", O_WRONLY | O_CREAT));
    tell("/var/log", opened("/var/log/probe", O_WRONLY | O_CREAT));
    tell("rename", rename("/var/log/probe", "/var/log/probed"));
    for (int line = 0; line < 3000; ++line)
        fprintf(stderr, "flood %d\n", line);
    return 0;
}
