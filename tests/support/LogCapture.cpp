#include "support/LogCapture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <sstream>

// Only there in sanitized programs: where a sanitizer writes its report.
extern "C" void __sanitizer_set_report_fd(void*) __attribute__((weak));

namespace support {
namespace {

volatile int capturedFile = -1;
volatile int realStderr = -1;
std::atomic<int> captures{0};

// A report belongs to no captured text. Where captures are nested, only the outermost knows the real stderr.
void sendReportsTo(int fd) {
    if (__sanitizer_set_report_fd != nullptr) {
        __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<std::intptr_t>(fd)));
    }
}

void handOn(int from, int to) {
    char buffer[4096];
    off_t offset = 0;
    for (;;) {
        const ssize_t n = pread(from, buffer, sizeof(buffer), offset);
        if (n <= 0 || write(to, buffer, static_cast<size_t>(n)) != n) {
            return;
        }
        offset += n;
    }
}

// What an assertion of Qt or an abort of our own had to say would go with the captured text.
void onAbort(int signal) {
    handOn(capturedFile, realStderr);
    ::signal(signal, SIG_DFL);
    raise(signal);
}

// "  1234-> [12:00:00] File.cpp Err (function): message"
LogEntry parse(const std::string& line) {
    LogEntry entry;
    const std::string::size_type arrow = line.find("-> [");
    const std::string::size_type open = line.find(" (");
    const std::string::size_type close = line.find("): ");
    const bool prefixed = arrow != std::string::npos && arrow < 12 && line.size() > arrow + 14 &&
                          line.compare(arrow + 12, 2, "] ") == 0 && open != std::string::npos &&
                          close != std::string::npos && open > arrow + 14 && close > open;
    if (!prefixed) {
        entry.level = "-";
        entry.message = line;
        return entry;
    }
    const std::string head = line.substr(arrow + 14, open - arrow - 14);  // "File.cpp Err" or "File.cpp "
    const std::string::size_type space = head.find(' ');
    entry.file = head.substr(0, space);
    entry.level = space == std::string::npos ? "" : head.substr(space + 1);
    entry.function = line.substr(open + 2, close - open - 2);
    entry.message = line.substr(close + 3);
    return entry;
}

}  // namespace

LogCapture::LogCapture() : file_(memfd_create("log", MFD_CLOEXEC)), saved_(dup(STDERR_FILENO)) {
    fcntl(file_, F_SETFL, O_APPEND);  // writes of several threads keep their places
    dup2(file_, STDERR_FILENO);
    capturedFile = file_;
    realStderr = saved_;
    if (captures++ == 0) {
        sendReportsTo(saved_);
    }
    signal(SIGABRT, onAbort);
}

LogCapture::~LogCapture() {
    signal(SIGABRT, SIG_DFL);
    dup2(saved_, STDERR_FILENO);
    if (--captures == 0) {
        sendReportsTo(STDERR_FILENO);
    }
    if (testing::Test::HasFailure()) {
        handOn(file_, STDERR_FILENO);
    }
    close(saved_);
    close(file_);
}

std::string LogCapture::text() const {
    std::string all;
    char buffer[4096];
    for (;;) {
        const ssize_t n = pread(file_, buffer, sizeof(buffer), static_cast<off_t>(all.size()));
        if (n <= 0) {
            return all;
        }
        all.append(buffer, static_cast<size_t>(n));
    }
}

std::vector<std::string> LogCapture::lines() const {
    std::vector<std::string> all;
    std::istringstream stream(text());
    for (std::string line; std::getline(stream, line);) {
        all.push_back(line);
    }
    return all;
}

std::vector<LogEntry> LogCapture::entries() const {
    std::vector<LogEntry> all;
    for (const std::string& line : lines()) {
        all.push_back(parse(line));
    }
    return all;
}

std::string LogCapture::messages() const {
    std::string all;
    for (const LogEntry& entry : entries()) {
        all += entry.message + "\n";
    }
    return all;
}

std::size_t LogCapture::count(const std::string& level) const {
    std::size_t n = 0;
    for (const LogEntry& entry : entries()) {
        n += entry.level == level ? 1 : 0;
    }
    return n;
}

std::size_t LogCapture::occurrences(const std::string& part) const {
    const std::string all = text();
    std::size_t n = 0;
    for (std::string::size_type at = all.find(part); at != std::string::npos; at = all.find(part, at + part.size())) {
        ++n;
    }
    return n;
}

bool LogCapture::has(const std::string& level, const std::string& message) const {
    for (const LogEntry& entry : entries()) {
        if (entry.level == level && entry.message == message) {
            return true;
        }
    }
    return false;
}

void LogCapture::clear() {
    EXPECT_EQ(ftruncate(file_, 0), 0);
}

}  // namespace support
