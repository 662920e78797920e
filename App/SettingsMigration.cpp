#include "App/SettingsMigration.h"

namespace quorva {

namespace {

// In the order they are copied. The others (output, layout, sound, gap, performance, sources) mean
// something else in the earlier application, or nothing.
const char* const MigratedKeys[] = {"RecorderCodec",   "RecorderWidth",  "RecorderHeight", "RecorderFPS",
                                    "RecorderBitrate", "RecorderFolder", "RecorderName"};

} // namespace

void SettingsMigration::migrate(const std::string& from, const std::string& to, SettingsStore& store) {
    if (store.boolForKey(MarkerKey))
        return;
    // A write that fails is logged by the store, and the values still hold for this run.
    (void)store.setBool(true, MarkerKey);
    const SettingsDictionary earlier = store.persistentDomainForName(from).value_or(SettingsDictionary{});
    const SettingsDictionary own = store.persistentDomainForName(to).value_or(SettingsDictionary{});
    for (const char* key : MigratedKeys) {
        auto value = earlier.find(key);
        if (value != earlier.end() && !own.contains(key))
            (void)store.setObject(value->second, key);
    }
}

} // namespace quorva
