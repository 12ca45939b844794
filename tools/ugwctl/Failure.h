// How a run of ugwctl ends when it can't do what it was asked for.
#ifndef TOOLS_UGWCTL_FAILURE_H
#define TOOLS_UGWCTL_FAILURE_H

#include <stdexcept>
#include <string>

namespace ugwctl {

/// Exit statuses; the manual page and --help tell the same.
enum class ExitStatus : int {
    Done = 0,
    Failed = 1,        // output can't be written, terminal can't be used
    Usage = 2,         // wrong command line
    NoSegment = 3,     // none there, or not permitted
    BadSegment = 4,    // too small, or no tree in it
    DeadGateway = 5,   // nobody keeps the tree up to date
    Torn = 6,          // no two copies of a node agree
    NoNode = 7,        // no node of that ID
    Pending = 8,       // another command is pending
    NotTaken = 9,      // nobody took the command; it was withdrawn
    NotConfirmed = 10  // the person at the terminal said no
};

/// One clear line, without line end, and the status to leave with.
class Failure : public std::runtime_error {
  public:
    Failure(ExitStatus status, const std::string& text) : std::runtime_error(text), status_(status) {}
    ExitStatus status() const { return status_; }

  private:
    ExitStatus status_;
};

}  // namespace ugwctl

#endif
