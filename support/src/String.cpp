#include "tova/String.h"

namespace tova {

String::String(const char* text) : text_(text ? text : "") {}

String::String(const std::string& text) : text_(text) {}

String String::operator+(const String& other) const { return String(text_ + other.text_); }

} // namespace tova
