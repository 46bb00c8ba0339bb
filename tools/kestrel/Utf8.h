#pragma once

#include <string>

namespace kestrel {

// 'text' as valid UTF-8: every byte sequence that is not a character (a name a
// driver cut inside a character, bytes of another encoding) becomes U+FFFD.
std::string validUtf8(const std::string& text);

} // namespace kestrel
