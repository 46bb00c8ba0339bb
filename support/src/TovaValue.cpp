#include "tova/TovaValue.h"

#include <string>
#include <type_traits>

namespace tova {

TovaValue::TovaValue(const bool& value) : value_(value) {}
TovaValue::TovaValue(const int& value) : value_(value) {}
TovaValue::TovaValue(const unsigned int& value) : value_(value) {}
TovaValue::TovaValue(const unsigned long long& value) : value_(value) {}
TovaValue::~TovaValue() = default;

String TovaValue::toString(unsigned int) const
{
    return std::visit(
        [](auto value) -> String {
            if constexpr (std::is_same_v<decltype(value), bool>)
                return value ? "true" : "false";
            else
                return std::to_string(value);
        },
        value_);
}

unsigned int TovaValue::nilValue() { return 0; }

} // namespace tova
