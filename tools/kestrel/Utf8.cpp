#include "Utf8.h"

namespace kestrel {
namespace {

const char* const replacement = "\xEF\xBF\xBD";

// The length of the well-formed character at text[at], or 0 when there is none
// there (the table of well-formed sequences of Unicode's chapter 3).
std::size_t characterLength(const std::string& text, std::size_t at)
{
    const auto byte = [&text](std::size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u; };
    const unsigned first = byte(at);
    const auto continuation = [&byte](std::size_t i, unsigned low = 0x80, unsigned high = 0xBF) {
        return byte(i) >= low && byte(i) <= high;
    };
    if (first < 0x80)
        return 1;
    if (first >= 0xC2 && first <= 0xDF)
        return continuation(at + 1) ? 2 : 0;
    if (first >= 0xE0 && first <= 0xEF) {
        const unsigned low = first == 0xE0 ? 0xA0 : 0x80;
        const unsigned high = first == 0xED ? 0x9F : 0xBF;
        return continuation(at + 1, low, high) && continuation(at + 2) ? 3 : 0;
    }
    if (first >= 0xF0 && first <= 0xF4) {
        const unsigned low = first == 0xF0 ? 0x90 : 0x80;
        const unsigned high = first == 0xF4 ? 0x8F : 0xBF;
        return continuation(at + 1, low, high) && continuation(at + 2) && continuation(at + 3) ? 4 : 0;
    }
    return 0;
}

} // namespace

std::string validUtf8(const std::string& text)
{
    std::string valid;
    valid.reserve(text.size());
    for (std::size_t at = 0; at < text.size();) {
        if (const std::size_t length = characterLength(text, at)) {
            valid.append(text, at, length);
            at += length;
        } else {
            valid += replacement;
            ++at;
        }
    }
    return valid;
}

} // namespace kestrel
