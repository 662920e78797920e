#include "remote/NetworkPorts.h"

#include <charconv>
#include <cstdlib>
#include <cstring>

namespace quorva {

int64_t PortFromEnvironment(const char* variable, int64_t fallback) {
    const char* text = std::getenv(variable);
    if (text == nullptr)
        return fallback;
    const char* end = text + std::strlen(text);
    int64_t value = 0;
    auto [stop, error] = std::from_chars(text, end, value);
    if (error != std::errc() || stop != end || stop == text)
        return fallback;
    return value;
}

} // namespace quorva
