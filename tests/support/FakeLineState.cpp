#include "support/FakeLineState.h"

#include <cstring>

namespace support {
namespace {

constexpr std::int64_t BITS_PER_BYTE = 10;
constexpr std::int64_t US_PER_S = 1000000;

std::int64_t baudOf(const struct termios& settings) {
    static const struct {
        speed_t code;
        std::int64_t baud;
    } table[] = {{B1200, 1200},   {B2400, 2400},   {B4800, 4800},   {B9600, 9600},
                 {B19200, 19200}, {B38400, 38400}, {B57600, 57600}, {B115200, 115200}};
    for (const auto& row : table) {
        if (cfgetospeed(&settings) == row.code) {
            return row.baud;
        }
    }
    return 0;
}

}  // namespace

std::int64_t timeOnLine(std::int64_t bytes, std::int64_t baud) {
    return baud == 0 ? 0 : (bytes * BITS_PER_BYTE * US_PER_S + baud - 1) / baud;
}

FakeLine::State::State(const std::string& thePath, int thePeerBaud)
    : path(thePath), name(thePath.substr(thePath.rfind('/') + 1)), peerBaud(thePeerBaud) {
    // As a port is found: canonical, with echo, 38400 baud.
    std::memset(&settings, 0, sizeof(settings));
    settings.c_iflag = ICRNL | IXON;
    settings.c_oflag = OPOST | ONLCR;
    settings.c_cflag = CS8 | CREAD | HUPCL;
    settings.c_lflag = ISIG | ICANON | ECHO | ECHOE | ECHOK | IEXTEN;
    static const struct {
        int index;
        cc_t value;
    } characters[] = {{VINTR, 3},   {VQUIT, 28}, {VERASE, 127}, {VKILL, 21}, {VEOF, 4},
                      {VSTART, 17}, {VSTOP, 19}, {VSUSP, 26},   {VMIN, 1},   {VTIME, 0}};
    for (const auto& row : characters) {
        settings.c_cc[row.index] = row.value;
    }
    cfsetispeed(&settings, B38400);
    cfsetospeed(&settings, B38400);
    std::memset(&rs485, 0, sizeof(rs485));
}

void FakeLine::State::feedFrom(std::int64_t instant, const Bytes& bytes) {
    const std::int64_t start = instant > peerBusyUntil ? instant : peerBusyUntil;
    std::int64_t count = 0;
    for (const std::uint8_t byte : bytes) {
        input.push_back({byte, start + timeOnLine(++count, peerBaud)});
    }
    peerBusyUntil = start + timeOnLine(count, peerBaud);
}

std::size_t FakeLine::State::arrived(std::int64_t now) const {
    std::size_t n = 0;
    while (n < input.size() && input[n].at <= now) {
        ++n;
    }
    return n;
}

void FakeLine::State::dropArrived(std::int64_t now) {
    while (!input.empty() && input.front().at <= now) {
        input.pop_front();
    }
}

std::size_t FakeLine::State::outputRoom(std::int64_t now) const {
    if (outputLimit == 0) {
        return SIZE_MAX;
    }
    const std::int64_t baud = baudOf(settings);
    const std::int64_t rest = sentUntil > now ? sentUntil - now : 0;
    const std::size_t pending =
        static_cast<std::size_t>((rest * baud + BITS_PER_BYTE * US_PER_S - 1) / (BITS_PER_BYTE * US_PER_S));
    return pending < outputLimit ? outputLimit - pending : 0;
}

std::int64_t FakeLine::State::roomAt() const {
    // The kernel wakes a writer when fewer than 256 bytes are left to send.
    const std::size_t low = outputLimit == 0 || outputLimit > 256 ? 255 : outputLimit - 1;
    return outputLimit == 0 ? 0 : sentUntil - timeOnLine(static_cast<std::int64_t>(low), baudOf(settings));
}

int FakeLine::State::enter(LineCall call, unsigned long request) {
    ++calls[static_cast<std::size_t>(call)];
    ++totalCalls;
    int error = 0;
    for (auto fault = faults.begin(); fault != faults.end();) {
        const bool concerned =
            fault->anyCall || (fault->call == call && (fault->request == 0 || fault->request == request));
        if (concerned && fault->countdown > 1) {
            --fault->countdown;
        } else if (concerned) {
            error = fault->error;
            if (--fault->times == 0) {
                fault = faults.erase(fault);
                continue;
            }
        }
        ++fault;
    }
    return error;
}

std::int64_t FakeLine::State::timeToSend(std::size_t bytes) const {
    return timeOnLine(static_cast<std::int64_t>(bytes), baudOf(settings));
}

}  // namespace support
