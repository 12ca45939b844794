// Texts for people. What comes out of shared memory is never trusted: it may lack its end and hold anything.
#ifndef TOOLS_UGWCTL_TEXT_H
#define TOOLS_UGWCTL_TEXT_H

#include <cstddef>
#include <string>

namespace ugwctl {

/// The bytes of a text field of `width` bytes, up to its NUL if there is one, without blanks at the end.
std::string fieldText(const void* field, std::size_t width);
/// The same for a terminal: every byte that isn't printable ASCII appears as \xNN.
std::string printable(const std::string& bytes);
/// printf into a string.
std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));

/// Colours, where they are wanted.
class Paint {
  public:
    explicit Paint(bool on) : on_(on) {}
    std::string red(const std::string& text) const { return wrap("31", text); }
    std::string yellow(const std::string& text) const { return wrap("33", text); }
    std::string green(const std::string& text) const { return wrap("32", text); }
    std::string bold(const std::string& text) const { return wrap("1", text); }

  private:
    std::string wrap(const char* code, const std::string& text) const;
    bool on_;
};

/// True where the environment allows colours: NO_COLOR is unset or empty, TERM isn't "dumb".
bool environmentWantsColour();

}  // namespace ugwctl

#endif
