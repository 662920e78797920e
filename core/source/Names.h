#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorva {

// The names of a fixed vocabulary (codecs, outputs, layouts), as OSC, the command line and the saved
// settings speak them. Each enum class declares its one table beside it:
//     const std::vector<std::string>& NameTable(Codec);
// A value's number is its index in the table, whose order never changes.

template <class Enum>
const std::vector<std::string>& Names() {
    return NameTable(Enum{});
}

template <class Enum>
const std::string& NameOf(Enum value) {
    return Names<Enum>()[size_t(value)];
}

// The index of `name` in `names` once its ASCII letters are lower-cased: the whole name, without
// trimming, so that "h264 " or "prores" name nothing. The names are ASCII, and nothing else may match
// them by accident.
inline std::optional<size_t> IndexOfName(const std::vector<std::string>& names, std::string_view name) {
    for (size_t i = 0; i < names.size(); ++i) {
        const std::string& candidate = names[i];
        bool same = candidate.size() == name.size();
        for (size_t k = 0; same && k < name.size(); ++k) {
            char c = name[k];
            same = (c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c) == candidate[k];
        }
        if (same)
            return i;
    }
    return std::nullopt;
}

template <class Enum>
std::optional<Enum> ValueNamed(std::string_view name) {
    if (auto index = IndexOfName(Names<Enum>(), name))
        return Enum(*index);
    return std::nullopt;
}

} // namespace quorva
