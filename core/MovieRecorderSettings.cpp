#include "core/MovieRecorderSettings.h"

#include <algorithm>

namespace quorva {

const std::vector<std::string>& MovieRecorderSettings::codecNames() {
    static const std::vector<std::string> names{"h264", "hevc", "prores422", "prores4444"};
    return names;
}

const std::string& MovieRecorderSettings::nameForCodec(int64_t codec) {
    const auto& names = codecNames();
    if (codec < 0 || uint64_t(codec) >= names.size())
        return names[0];
    return names[size_t(codec)];
}

bool MovieRecorderSettings::getCodec(int64_t& codec, std::string_view name) {
    // ASCII lower-casing only: the names are ASCII, and anything else must not match by accident.
    std::string lower(name);
    for (char& c : lower)
        if (c >= 'A' && c <= 'Z')
            c = char(c - 'A' + 'a');
    const auto& names = codecNames();
    auto found = std::find(names.begin(), names.end(), lower);
    if (found == names.end())
        return false;
    codec = found - names.begin();
    return true;
}

} // namespace quorva
