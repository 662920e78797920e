#include "core/movie/MovieRecorderSettings.h"

namespace quorva {

const std::vector<std::string>& NameTable(Codec) {
    static const std::vector<std::string> names{"h264", "hevc", "prores422", "prores4444"};
    return names;
}

} // namespace quorva
