#include "core/source/SourceDescription.h"

namespace quorva {

const std::string& SourceKindName(int64_t kind) {
    static const std::string PipeWire = "pipewire", NDI = "ndi", Pattern = "pattern";
    switch (kind) {
    case SourceKindNDI:
        return NDI;
    case SourceKindPattern:
        return Pattern;
    default:
        return PipeWire;
    }
}

} // namespace quorva
