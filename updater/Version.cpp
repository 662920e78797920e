#include "updater/Version.h"

#include <algorithm>
#include <limits>
#include <vector>

namespace quorva {

namespace {

std::vector<uint64_t> Numbers(std::string_view version) {
    version = version.substr(0, version.find('-'));
    std::vector<uint64_t> numbers;
    while (!version.empty()) {
        const size_t dot = version.find('.');
        const std::string_view piece = version.substr(0, dot);
        version = dot == std::string_view::npos ? std::string_view() : version.substr(dot + 1);
        if (piece.empty())
            continue;
        uint64_t number = 0;
        for (char c : piece) {
            if (c < '0' || c > '9')
                break;
            // A piece too long for 64 bits is as late as a version can be, not a wrapped-around one.
            const uint64_t digit = uint64_t(c - '0');
            number = number > (std::numeric_limits<uint64_t>::max() - digit) / 10
                         ? std::numeric_limits<uint64_t>::max()
                         : number * 10 + digit;
        }
        numbers.push_back(number);
    }
    return numbers;
}

} // namespace

std::string NormalizeVersion(std::string_view version) {
    constexpr std::string_view space = " \t\n\r\v\f";
    const size_t first = version.find_first_not_of(space);
    if (first == std::string_view::npos)
        return {};
    version = version.substr(first, version.find_last_not_of(space) - first + 1);
    if (version.front() == 'v' || version.front() == 'V')
        version.remove_prefix(1);
    return std::string(version);
}

bool IsNewerVersion(std::string_view candidate, std::optional<int64_t> candidateBuild,
                    std::string_view current, std::optional<int64_t> currentBuild) {
    const std::vector<uint64_t> a = Numbers(NormalizeVersion(candidate));
    const std::vector<uint64_t> b = Numbers(NormalizeVersion(current));
    for (size_t i = 0; i < std::max(a.size(), b.size()); ++i) {
        const uint64_t x = i < a.size() ? a[i] : 0;
        const uint64_t y = i < b.size() ? b[i] : 0;
        if (x != y)
            return x > y;
    }
    return candidateBuild && currentBuild && *candidateBuild > *currentBuild;
}

} // namespace quorva
