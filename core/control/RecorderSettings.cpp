#include "core/control/RecorderSettings.h"

#include "platform/UserFolders.h"

#include <algorithm>
#include <cmath>

namespace quorva {

namespace {

enum class Type { Text, Integer, Real, Flag };

struct Rule {
    const char* key;
    Type type;
    // Numbers are set within 0…maximum.
    double maximum = 0;
    // Texts that name one of a list: loaded only when they do, set only in the list's spelling (or, for
    // the codec, which the take reads as H.264 when it names none, as they come).
    const std::vector<std::string>& (*names)() = nullptr;
    bool setAsNamed = false;
    bool clampedWhenLoaded = false;
    SettingFollower follower = SettingFollower::Nothing;
};

// In the order of Setting.
const std::array<Rule, SettingCount> Rules{{
    {.key = "RecorderCodec",
     .type = Type::Text,
     .names = Names<Codec>,
     .follower = SettingFollower::Composition},
    {.key = "RecorderFolder", .type = Type::Text},
    {.key = "RecorderName", .type = Type::Text},
    {.key = "RecorderOutput", .type = Type::Text, .names = Names<TakeOutput>, .setAsNamed = true},
    {.key = "RecorderLayout",
     .type = Type::Text,
     .names = Names<LayoutKind>,
     .setAsNamed = true,
     .follower = SettingFollower::Composition},
    {.key = "RecorderSound", .type = Type::Text},
    {.key = "RecorderWidth",
     .type = Type::Integer,
     .maximum = 16384,
     .follower = SettingFollower::Composition},
    {.key = "RecorderHeight",
     .type = Type::Integer,
     .maximum = 16384,
     .follower = SettingFollower::Composition},
    {.key = "RecorderFPS", .type = Type::Real, .maximum = 240},
    {.key = "RecorderBitrate", .type = Type::Real, .maximum = 1000},
    {.key = "RecorderGap",
     .type = Type::Integer,
     .maximum = 1000,
     .clampedWhenLoaded = true,
     .follower = SettingFollower::Composition},
    {.key = "RecorderPerformance", .type = Type::Flag, .follower = SettingFollower::DisplayLimit},
}};

const Rule& RuleOf(Setting setting) {
    return Rules[size_t(setting)];
}

} // namespace

RecorderSettings::RecorderSettings(std::shared_ptr<SettingsStore> store) : _store(std::move(store)) {
    SettingsDictionary defaults;
    for (const Rule& rule : Rules) {
        if (rule.type == Type::Text)
            defaults[rule.key] = rule.names ? rule.names().front() : std::string();
    }
    defaults[RuleOf(Setting::Folder).key] = MoviesFolder().string();
    _store->registerDefaults(defaults);

    for (size_t i = 0; i < SettingCount; ++i) {
        const Rule& rule = Rules[i];
        switch (rule.type) {
        case Type::Text: {
            std::string text = _store->stringForKey(rule.key).value_or("");
            if (rule.names && !IndexOfName(rule.names(), text))
                text = rule.names().front();
            _values[i] = std::move(text);
            break;
        }
        case Type::Integer: {
            int64_t number = _store->integerForKey(rule.key);
            _values[i] =
                rule.clampedWhenLoaded ? std::clamp<int64_t>(number, 0, int64_t(rule.maximum)) : number;
            break;
        }
        case Type::Real:
            _values[i] = _store->doubleForKey(rule.key);
            break;
        case Type::Flag:
            _values[i] = _store->boolForKey(rule.key);
            break;
        }
    }
}

SettingFollower RecorderSettings::followerOf(Setting setting) {
    return RuleOf(setting).follower;
}

double RecorderSettings::maximumOf(Setting setting) {
    return RuleOf(setting).maximum;
}

const std::string& RecorderSettings::text(Setting setting) const {
    return std::get<std::string>(_values[size_t(setting)]);
}

int64_t RecorderSettings::integer(Setting setting) const {
    return std::get<int64_t>(_values[size_t(setting)]);
}

double RecorderSettings::number(Setting setting) const {
    const SettingValue& value = _values[size_t(setting)];
    if (const auto* whole = std::get_if<int64_t>(&value))
        return double(*whole);
    if (const auto* flag = std::get_if<bool>(&value))
        return *flag ? 1 : 0;
    return std::get<double>(value);
}

bool RecorderSettings::flag(Setting setting) const {
    return std::get<bool>(_values[size_t(setting)]);
}

bool RecorderSettings::setText(Setting setting, std::string_view text) {
    const Rule& rule = RuleOf(setting);
    std::string value(text);
    if (rule.setAsNamed) {
        auto index = IndexOfName(rule.names(), text);
        if (!index)
            return false;
        value = rule.names()[*index];
    } else if (setting == Setting::Folder) {
        value = ExpandTilde(value);
    }
    store(setting, std::move(value));
    return true;
}

void RecorderSettings::setNumber(Setting setting, double number) {
    const Rule& rule = RuleOf(setting);
    if (rule.type == Type::Flag) {
        store(setting, number != 0);
        return;
    }
    // Clamped as a double, before any conversion: 1e19 is the largest side, not a wrapped integer.
    const double kept = std::isfinite(number) ? std::clamp(number, 0.0, rule.maximum) : 0;
    if (rule.type == Type::Integer)
        store(setting, int64_t(kept));
    else
        store(setting, kept);
}

void RecorderSettings::store(Setting setting, SettingValue value) {
    _values[size_t(setting)] = value;
    (void)_store->setObject(std::move(value), RuleOf(setting).key);
}

Codec RecorderSettings::codec() const {
    return ValueNamed<Codec>(text(Setting::Codec)).value_or(Codec::H264);
}

TakeOutput RecorderSettings::output() const {
    return ValueNamed<TakeOutput>(text(Setting::Output)).value_or(TakeOutput::Separate);
}

LayoutKind RecorderSettings::layoutKind() const {
    return ValueNamed<LayoutKind>(text(Setting::Layout)).value_or(LayoutKind::Row);
}

Size RecorderSettings::fittingSize() const {
    return Size{number(Setting::Width), number(Setting::Height)};
}

} // namespace quorva
