#pragma once

#include "core/composition/Layout.h"
#include "core/movie/MovieRecorderSettings.h"
#include "core/movie/TakeNaming.h"
#include "core/source/Geometry.h"
#include "platform/SettingsStore.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace quorva {

// The recording settings. Each is persisted under a key of its own in the user's defaults.
enum class Setting {
    Codec,
    Folder,
    Name,
    Output,
    Layout,
    Sound,
    Width,
    Height,
    FPS,
    Bitrate,
    Gap,
    Performance
};
inline constexpr size_t SettingCount = size_t(Setting::Performance) + 1;

// What else follows a change of a setting.
enum class SettingFollower { Nothing, Composition, DisplayLimit };

// The recording settings and their persistence, after one table that says of each its key in the
// user's defaults, its type, its range and what else follows a change of it. Loading checks the names
// (one not in its list gives the list's first) and clamps the gap; every other value comes back
// exactly as saved, since the take and the movies give 0 and large numbers their meaning. Setting
// never fails: a number is kept within its range (one that is not finite becomes 0), and an output or
// layout that is not in its list is refused without a word. A write that fails is logged by the store,
// and the value still holds for this run.
//
// Main thread only.
class RecorderSettings {
public:
    // Registers the defaults of the texts (the first of each list, the Movies folder, "") and loads
    // every setting.
    explicit RecorderSettings(std::shared_ptr<SettingsStore> store);

    static SettingFollower followerOf(Setting setting);
    // The largest value of a number setting: 16384 for the sides, 240 for the frame rate, 1000 for the
    // bit rate and the gap.
    static double maximumOf(Setting setting);

    const std::string& text(Setting setting) const;
    int64_t integer(Setting setting) const;
    // Any number setting as a double; the performance flag as 0 or 1.
    double number(Setting setting) const;
    bool flag(Setting setting) const;

    // Stores and persists a text as it comes, except for an output or a layout, stored in its list's
    // spelling (false, and nothing changes, for one not in its list), and a folder, whose leading "~"
    // is expanded. Whether a sound choice matches a place is the caller's to know.
    bool setText(Setting setting, std::string_view text);
    // Stores and persists a number within its setting's range (the flag: any number but 0 is true).
    // Whole-number settings drop the fraction once the number is within range.
    void setNumber(Setting setting, double number);

    // The texts as the take and the composition read them: a codec name that is not in its list is
    // read as H.264, an output as separate, a layout as a row.
    Codec codec() const;
    TakeOutput output() const;
    LayoutKind layoutKind() const;
    // What the assembled picture is fitted into: width × height, 0 either way for the sources' own size.
    Size fittingSize() const;

private:
    void store(Setting setting, SettingValue value);

    const std::shared_ptr<SettingsStore> _store;
    std::array<SettingValue, SettingCount> _values;
};

} // namespace quorva
