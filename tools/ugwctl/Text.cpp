#include "tools/ugwctl/Text.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace ugwctl {

std::string fieldText(const void* field, std::size_t width) {
    const char* const bytes = static_cast<const char*>(field);
    std::size_t length = strnlen(bytes, width);
    while (length > 0 && bytes[length - 1] == ' ') {
        --length;
    }
    return std::string(bytes, length);
}

std::string printable(const std::string& bytes) {
    std::string out;
    for (const char c : bytes) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7F) {
            out += c;
        } else {
            out += format("\\x%02X", byte);
        }
    }
    return out;
}

std::string format(const char* pattern, ...) {
    std::va_list args;
    va_start(args, pattern);
    std::va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, pattern, args);
    va_end(args);
    std::string out(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    if (length > 0) {
        std::vsnprintf(out.data(), out.size() + 1, pattern, again);
    }
    va_end(again);
    return out;
}

std::string Paint::wrap(const char* code, const std::string& text) const {
    return on_ ? std::string("\x1b[") + code + "m" + text + "\x1b[0m" : text;
}

bool environmentWantsColour() {
    const char* const noColour = std::getenv("NO_COLOR");
    const char* const term = std::getenv("TERM");
    return (noColour == nullptr || *noColour == '\0') && (term == nullptr || std::strcmp(term, "dumb") != 0);
}

}  // namespace ugwctl
