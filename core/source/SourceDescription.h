#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace quorva {

// What a title stands for. The numbers are what OSC and the status values speak; a number this program
// does not know is taken for a PipeWire source.
inline constexpr int64_t SourceKindPipeWire = 0;
inline constexpr int64_t SourceKindNDI = 1;
inline constexpr int64_t SourceKindPattern = 2;

// "pipewire", "ndi" or "pattern".
const std::string& SourceKindName(int64_t kind);

// One source that a directory offers: the title it is chosen and connected by, a line for the user
// beside it, and its kind. Immutable.
class SourceDescription {
public:
    SourceDescription(std::string title, std::string detail, int64_t kind)
        : _title(std::move(title)), _detail(std::move(detail)), _kind(kind) {}

    const std::string& title() const { return _title; }
    const std::string& detail() const { return _detail; }
    int64_t kind() const { return _kind; }

private:
    std::string _title;
    std::string _detail;
    int64_t _kind;
};

} // namespace quorva
