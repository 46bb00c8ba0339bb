#pragma once

#include <string>

#include "tova/Export.h"

namespace tova {

// The support library's string: UTF-8 text owned by value.
class TOVA_API String {
public:
    String() = default;
    String(const char* text);
    String(const std::string& text);

    String operator+(const String& other) const;
    bool operator==(const String& other) const { return text_ == other.text_; }
    bool operator!=(const String& other) const { return text_ != other.text_; }

    bool empty() const { return text_.empty(); }
    const char* c_str() const { return text_.c_str(); }
    const std::string& str() const { return text_; }

private:
    std::string text_;
};

} // namespace tova
