#pragma once

#include "platform/Error.h"
#include "platform/SerialQueue.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace quorva {

// One setting: a string, an integer, a double, a boolean or a list of strings.
using SettingValue = std::variant<std::string, int64_t, double, bool, std::vector<std::string>>;
using SettingsDictionary = std::map<std::string, SettingValue>;

// The user's defaults for one application identifier. Two layers answer a key: the persistent domain
// (what was set, kept in "<folder>/<identifier>.json") and then the registered defaults (kept in
// memory only, never written, so that changing a default in a later version reaches every user who
// never chose otherwise).
//
// Every change is written atomically, at once but off the caller's thread: the whole domain goes to a
// temporary file in the same folder, which is flushed to disk and then renamed over the file, and the
// folder itself is flushed. Setters only queue that write on the store's own writer thread, so that a
// burst of remote changes never stalls the main thread on the disk; changes made while a write is
// queued share it. A crash at any moment leaves either the old file or the new one, never a mix. A file that
// cannot be read or parsed is renamed aside ("<file>.corrupt-<UTC time>"), never deleted, so that a person
// can still recover it, and the store starts empty.
//
// Safe to use from any thread.
class SettingsStore {
public:
    // The domain of `identifier` in DefaultFolder().
    explicit SettingsStore(std::string identifier = ApplicationIdentifier);
    // The domain of `identifier` in `folder`, which need not exist yet.
    SettingsStore(std::string identifier, std::filesystem::path folder);
    // Writes what is not written yet.
    ~SettingsStore();
    SettingsStore(const SettingsStore&) = delete;
    SettingsStore& operator=(const SettingsStore&) = delete;

    // $XDG_CONFIG_HOME when it is set to an absolute path, else $HOME/.config.
    static std::filesystem::path DefaultFolder();

    const std::string& identifier() const { return _identifier; }
    const std::filesystem::path& filePath() const { return _file; }

    // Adds defaults; a key registered again takes the newer value.
    void registerDefaults(const SettingsDictionary& defaults);

    // The stored value, else the registered default, else nothing.
    std::optional<SettingValue> objectForKey(const std::string& key) const;

    // Typed readers, lenient in the way a settings file edited by hand needs: numbers read as strings
    // give their text; strings read as numbers give their leading number; "yes" and "true" (in any
    // case) and non-zero numbers read as true. What cannot be read as the type gives nothing, 0 or
    // false.
    std::optional<std::string> stringForKey(const std::string& key) const;
    int64_t integerForKey(const std::string& key) const;
    double doubleForKey(const std::string& key) const;
    bool boolForKey(const std::string& key) const;
    std::optional<std::vector<std::string>> stringArrayForKey(const std::string& key) const;

    // Stores a value and queues the domain's write. The value is kept in memory even when the write
    // fails (the log and flush() say why), so the running program behaves the same and the next write
    // carries it. Doubles that are not finite are refused: JSON has no way to write them.
    Result<void> setObject(SettingValue value, const std::string& key);
    Result<void> setString(const std::string& value, const std::string& key);
    Result<void> setInteger(int64_t value, const std::string& key);
    Result<void> setDouble(double value, const std::string& key);
    Result<void> setBool(bool value, const std::string& key);
    Result<void> setStringArray(const std::vector<std::string>& value, const std::string& key);

    // Removes the stored value (the registered default shows again) and queues the domain's write.
    Result<void> removeObjectForKey(const std::string& key);

    // Waits until every change made so far is on disk; answers how the last write went.
    Result<void> flush();

    // What is stored for this application, without the registered defaults.
    SettingsDictionary persistentDomain() const;

    // What another application (or this one) has stored in this store's folder, read-only: a damaged
    // file of another application is left where it is. Nothing when there is no such domain or it
    // cannot be read.
    std::optional<SettingsDictionary> persistentDomainForName(const std::string& identifier) const;

    // For tests that interrupt or hold a write: called on the writer thread with the temporary file once
    // it is complete and flushed, just before it is renamed over the settings file.
    void setBeforeRenameHook(std::function<void(const std::filesystem::path& temporary)> hook);

private:
    void load();
    // With _lock held.
    void queueWrite();
    // On the writer thread.
    void writeQueued();
    Result<void> write(const SettingsDictionary& values,
                       const std::function<void(const std::filesystem::path&)>& beforeRename) const;
    std::optional<SettingValue> lookup(const std::string& key) const;

    const std::string _identifier;
    const std::filesystem::path _folder;
    const std::filesystem::path _file;
    mutable std::mutex _lock;
    SettingsDictionary _defaults;
    SettingsDictionary _values;
    // Set when an unreadable file could not be moved aside: writing would destroy it, so we don't.
    bool _writeBlocked = false;
    std::function<void(const std::filesystem::path&)> _beforeRename;
    bool _writeQueued = false;
    Result<void> _lastWrite;
    // Made on the first change: a store that is only read needs no thread.
    std::unique_ptr<SerialQueue> _writer;
};

} // namespace quorva
