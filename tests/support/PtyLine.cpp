#include "support/PtyLine.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include "support/FakeLineState.h"

namespace support {

PtyLine::PtyLine(const std::string& path) : path_(path), master_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    char slave[64];
    if (master_ >= 0 && grantpt(master_) == 0 && unlockpt(master_) == 0 &&
        ptsname_r(master_, slave, sizeof(slave)) == 0) {
        // Nothing may be echoed to the peer before the product has set the terminal up.
        struct termios settings;
        tcgetattr(master_, &settings);
        settings.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(master_, TCSANOW, &settings);
        redirectPath(path_, slave);
    }
}

PtyLine::~PtyLine() {
    hangUp();
    redirectPath(path_, "");
}

void PtyLine::feed(const Bytes& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = write(master_, bytes.data() + done, bytes.size() - done);
        if (n <= 0) {
            ADD_FAILURE() << "the pseudo-terminal takes nothing";
            return;
        }
        done += static_cast<std::size_t>(n);
    }
}

Bytes PtyLine::take(std::size_t count) {
    constexpr int LIMIT_MS = 10000;
    Bytes bytes;
    while (bytes.size() < count) {
        struct pollfd wait = {master_, POLLIN, 0};
        std::uint8_t buffer[1024];
        const std::size_t rest = count - bytes.size();
        if (poll(&wait, 1, LIMIT_MS) <= 0) {
            break;
        }
        const ssize_t n = read(master_, buffer, rest < sizeof(buffer) ? rest : sizeof(buffer));
        if (n <= 0) {
            break;
        }
        bytes.insert(bytes.end(), buffer, buffer + n);
    }
    return bytes;
}

void PtyLine::hangUp() {
    if (master_ >= 0) {
        close(master_);
        master_ = -1;
    }
}

}  // namespace support
