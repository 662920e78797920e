#pragma once

#include "platform/SettingsStore.h"

#include <string>

namespace quorva {

// The settings that users of the earlier companion application chose, brought over once.
class SettingsMigration {
public:
    // The marker, set before anything is copied, so that a migration that fails halfway is not tried again.
    static constexpr const char* MarkerKey = "SettingsMigratedFromQuorvaClient";
    static constexpr const char* EarlierIdentifier = "org.quorva.QuorvaClient";

    // Copies each of the seven settings that both applications share from the domain `from` into
    // `store` (the domain `to`), where `to` has no value of its own for it. Missing domains count as
    // empty; nothing here fails visibly.
    static void migrate(const std::string& from, const std::string& to, SettingsStore& store);
};

} // namespace quorva
