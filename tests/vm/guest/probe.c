/* What the test asks of a serial port and of the segment from inside the machine; static, so that it needs no library.
 *
 *   probe termios DEVICE        the settings as the driver has them: flags and speeds in octal and baud, then c_cc
 *   probe rs485 DEVICE          flags and delays (ms) as the driver has them, or the error
 *   probe ask485 DEVICE         asks the driver for RS-485 mode; what it says
 *   probe breaks DEVICE         BREAK conditions that the driver has counted
 *   probe drain DEVICE BAUD BYTES TIMES    writes and drains, in microseconds of each
 *   probe segment ID            a segment's bytes, in hexadecimal
 *   probe terminal PID          a process's controlling terminal, 0 if it has none
 */
#include <errno.h>
#include <fcntl.h>
#include <linux/serial.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/shm.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

static int failed(const char* what) {
    printf("%s: %s\n", what, strerror(errno));
    return 1;
}

static int baud_of(speed_t speed) {
    switch (speed) {
        case B1200:
            return 1200;
        case B2400:
            return 2400;
        case B9600:
            return 9600;
        default:
            return -1;
    }
}

static int show_termios(int fd) {
    struct termios t;
    if (tcgetattr(fd, &t) != 0)
        return failed("tcgetattr");
    printf("%o %o %o %o %d %d", (unsigned)t.c_iflag, (unsigned)t.c_oflag, (unsigned)t.c_cflag, (unsigned)t.c_lflag,
           baud_of(cfgetispeed(&t)), baud_of(cfgetospeed(&t)));
    static const int disabled[] = {VINTR, VQUIT, VSTART, VSTOP, VSUSP, VEOF, VEOL, VERASE, VKILL};
    for (size_t i = 0; i < sizeof disabled / sizeof *disabled; ++i)
        printf(" %d", t.c_cc[disabled[i]]);
    printf("\n");
    return 0;
}

static int show_rs485(int fd) {
    struct serial_rs485 rs485;
    memset(&rs485, 0, sizeof rs485);
    if (ioctl(fd, TIOCGRS485, &rs485) != 0)
        return failed("TIOCGRS485");
    printf("%u %u %u\n", (unsigned)rs485.flags, (unsigned)rs485.delay_rts_before_send,
           (unsigned)rs485.delay_rts_after_send);
    return 0;
}

static int ask_rs485(int fd) {
    struct serial_rs485 rs485;
    memset(&rs485, 0, sizeof rs485);
    rs485.flags = SER_RS485_ENABLED | SER_RS485_RTS_ON_SEND;
    if (ioctl(fd, TIOCSRS485, &rs485) != 0)
        return failed("TIOCSRS485");
    printf("taken\n");
    return 0;
}

static int show_breaks(int fd) {
    struct serial_icounter_struct counters;
    if (ioctl(fd, TIOCGICOUNT, &counters) != 0)
        return failed("TIOCGICOUNT");
    printf("%d\n", counters.brk);
    return 0;
}

static int drain(int fd, int baud, int bytes, int times) {
    struct termios t;
    if (tcgetattr(fd, &t) != 0)
        return failed("tcgetattr");
    cfmakeraw(&t);
    t.c_cflag |= CLOCAL | CREAD;
    cfsetspeed(&t, baud == 1200 ? B1200 : B9600);
    if (tcsetattr(fd, TCSANOW, &t) != 0)
        return failed("tcsetattr");
    char* text = malloc((size_t)bytes);
    memset(text, 'U', (size_t)bytes);
    for (int i = 0; i < times; ++i) {
        struct timespec from, to;
        clock_gettime(CLOCK_MONOTONIC, &from);
        if (write(fd, text, (size_t)bytes) != bytes)
            return failed("write");
        if (tcdrain(fd) != 0)
            return failed("tcdrain");
        clock_gettime(CLOCK_MONOTONIC, &to);
        printf("%ld ", (long)(to.tv_sec - from.tv_sec) * 1000000 + (to.tv_nsec - from.tv_nsec) / 1000);
        usleep(100000);
    }
    printf("\n");
    free(text);
    return 0;
}

static int show_segment(int id) {
    struct shmid_ds ds;
    if (shmctl(id, IPC_STAT, &ds) != 0)
        return failed("shmctl");
    const unsigned char* at = shmat(id, NULL, SHM_RDONLY);
    if (at == (void*)-1)
        return failed("shmat");
    for (size_t i = 0; i < ds.shm_segsz; ++i)
        printf("%02x", at[i]);
    printf("\n");
    return 0;
}

static int show_terminal(const char* pid) {
    char path[64];
    snprintf(path, sizeof path, "/proc/%s/stat", pid);
    FILE* file = fopen(path, "r");
    int terminal = -1;
    if (!file || fscanf(file, "%*d %*s %*c %*d %*d %*d %d", &terminal) != 1)
        return failed(path);
    fclose(file);
    printf("%d\n", terminal);
    return 0;
}

int main(int argc, char** argv) {
    if (argc < 3)
        return 2;
    if (strcmp(argv[1], "segment") == 0)
        return show_segment(atoi(argv[2]));
    if (strcmp(argv[1], "terminal") == 0)
        return show_terminal(argv[2]);
    int fd = open(argv[2], O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (fd < 0)
        return failed(argv[2]);
    fcntl(fd, F_SETFL, 0);
    if (strcmp(argv[1], "termios") == 0)
        return show_termios(fd);
    if (strcmp(argv[1], "rs485") == 0)
        return show_rs485(fd);
    if (strcmp(argv[1], "ask485") == 0)
        return ask_rs485(fd);
    if (strcmp(argv[1], "breaks") == 0)
        return show_breaks(fd);
    if (strcmp(argv[1], "drain") == 0 && argc == 6)
        return drain(fd, atoi(argv[3]), atoi(argv[4]), atoi(argv[5]));
    return 2;
}
