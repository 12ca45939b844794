// Everything written to descriptor 2 while it lives. If the test has failed by its end, or the process is aborted
// meanwhile, the text is handed on to the real stderr.
//
//     LogCapture log;
//     ...
//     EXPECT_EQ(log.messages(), "Canale non valido!\n");
//     EXPECT_EQ(log.errors(), 1u);
#ifndef TESTS_SUPPORT_LOGCAPTURE_H
#define TESTS_SUPPORT_LOGCAPTURE_H

#include <cstddef>
#include <string>
#include <vector>

namespace support {

/// One log line, taken apart. `level` is "Err", "War", "Dbg", "" for a plain line and "-" for bare text.
struct LogEntry {
    std::string level;
    std::string file;
    std::string function;
    std::string message;  ///< without its line end
};

class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// The text so far, prefixes and all.
    std::string text() const;
    std::vector<std::string> lines() const;
    std::vector<LogEntry> entries() const;
    /// The text without the prefixes: what the log operations were given.
    std::string messages() const;
    /// Number of lines with that level.
    std::size_t errors() const { return count("Err"); }
    std::size_t warnings() const { return count("War"); }
    std::size_t count(const std::string& level) const;
    /// Number of times `part` stands in the text.
    std::size_t occurrences(const std::string& part) const;
    bool contains(const std::string& part) const { return occurrences(part) > 0; }
    /// True if a line with this level has exactly this message (without line end).
    bool has(const std::string& level, const std::string& message) const;
    /// Forgets what was captured so far.
    void clear();

  private:
    int file_;
    int saved_;
};

}  // namespace support

#endif
