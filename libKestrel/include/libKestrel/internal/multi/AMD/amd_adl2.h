#pragma once

#include <cstdint>
#include <optional>

namespace libKestrel {

// AMD core counts are deliberately not reported: always empty, no ADL call.
std::optional<std::uint32_t> query_CoreInfo();

} // namespace libKestrel
