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

int64_t SearchPorts(int64_t port, int64_t count, const std::function<int64_t(uint16_t port)>& bind) {
    for (int64_t candidate = port; candidate < port + count && candidate <= 65535; ++candidate) {
        if (candidate < 0)
            continue;
        if (int64_t bound = bind(uint16_t(candidate)))
            return bound;
        if (candidate == 0)
            break;
    }
    return 0;
}

} // namespace quorva
