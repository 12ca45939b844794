#include "support/Transcript.h"

#include <sys/stat.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

#include "support/Guarded.h"
#include "support/VirtualClock.h"

namespace support {
namespace {

constexpr std::size_t ENTRIES_KEPT = 200000;

struct Entry {
    std::int64_t at;
    std::string source;
    std::string text;
    std::size_t times;
    bool isWait;
};

struct Book {
    std::mutex mutex;
    std::vector<Entry> entries;
    bool withWaits = true;
};

Book& book() {
    static Book* const instance = new Book;
    return *instance;
}

void put(const std::string& source, const std::string& text, bool isWait) {
    const std::int64_t at = VirtualClock::now();
    Book& b = book();
    const SignalSafeLock lock(b.mutex);
    if (isWait && !b.withWaits) {
        return;
    }
    if (isWait && !b.entries.empty() && b.entries.back().isWait && b.entries.back().text == text) {
        ++b.entries.back().times;
        return;
    }
    if (b.entries.size() < ENTRIES_KEPT) {
        b.entries.push_back({at, source, text, 1, isWait});
    }
}

}  // namespace

std::string hex(const std::uint8_t* bytes, std::size_t length) {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    for (std::size_t i = 0; i < length; ++i) {
        if (i > 0) {
            text += ' ';
        }
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0x0F];
    }
    return text;
}

void Transcript::add(const std::string& source, const std::string& text) {
    put(source, text, false);
}

void Transcript::addBytes(const std::string& source, const char* direction, const std::uint8_t* bytes,
                          std::size_t length) {
    put(source, std::string(direction) + " " + hex(bytes, length), false);
}

void Transcript::addWait(const char* call, std::int64_t us) {
    put("", std::string(call) + " " + std::to_string(us) + " us", true);
}

void Transcript::withWaits(bool on) {
    const SignalSafeLock lock(book().mutex);
    book().withWaits = on;
}

void Transcript::clear() {
    const SignalSafeLock lock(book().mutex);
    book().entries.clear();
}

std::string Transcript::text() {
    const SignalSafeLock lock(book().mutex);
    std::string all;
    for (const Entry& entry : book().entries) {
        char head[64];
        std::snprintf(head, sizeof(head), "[%4" PRId64 ".%06" PRId64 "] %-7s ", entry.at / 1000000, entry.at % 1000000,
                      entry.source.c_str());
        all += head + entry.text;
        if (entry.times > 1) {
            all += " x" + std::to_string(entry.times);
        }
        all += "\n";
    }
    return all;
}

testing::AssertionResult Transcript::matchesGolden(const std::string& name) {
    return textMatchesGolden(text(), name);
}

testing::AssertionResult Transcript::textMatchesGolden(const std::string& text, const std::string& name) {
    const std::string folder = UGW_GOLDEN_DIR;
    const std::string path = folder + "/" + name + ".txt";
    if (std::getenv("UGW_GOLDEN_WRITE") != nullptr) {
        mkdir(folder.c_str(), 0755);
        std::ofstream(path, std::ios::binary) << text;
        return testing::AssertionSuccess();
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return testing::AssertionFailure() << path << " can't be read (UGW_GOLDEN_WRITE=1 makes it); the text is:\n"
                                           << text;
    }
    std::stringstream golden;
    golden << file.rdbuf();
    if (golden.str() == text) {
        return testing::AssertionSuccess();
    }
    std::istringstream is(text);
    std::istringstream was(golden.str());
    std::string isLine;
    std::string wasLine;
    for (int line = 1;; ++line) {
        const bool more = static_cast<bool>(std::getline(is, isLine));
        const bool wasMore = static_cast<bool>(std::getline(was, wasLine));
        if (more != wasMore || isLine != wasLine || !more) {
            return testing::AssertionFailure()
                   << path << " differs in line " << line << "\n  golden: " << (wasMore ? wasLine : "(ends)")
                   << "\n  now:    " << (more ? isLine : "(ends)") << "\nthe whole text now:\n"
                   << text;
        }
    }
}

}  // namespace support
