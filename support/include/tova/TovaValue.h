#pragma once

#include <variant>

#include "tova/Export.h"
#include "tova/String.h"

namespace tova {

// A number or flag on its way into text.
class TOVA_API TovaValue {
public:
    TovaValue(const bool& value);
    TovaValue(const int& value);
    TovaValue(const unsigned int& value);
    TovaValue(const unsigned long long& value);
    ~TovaValue();

    // Decimal for numbers, "true"/"false" for flags. The format argument is
    // reserved for renderings other than the plain one, which nilValue() selects.
    String toString(unsigned int format) const;
    static unsigned int nilValue();

private:
    std::variant<bool, int, unsigned int, unsigned long long> value_;
};

} // namespace tova
