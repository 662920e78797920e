#include "platform/SettingsStore.h"

#include "platform/Log.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <pwd.h>
#include <signal.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quorva {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

const char* const LogPrefix = "Settings: ";

std::string ErrorDomain() {
    return std::string(ApplicationIdentifier) + ".Settings";
}

Error SettingsError(const std::string& message) {
    return Error(ErrorDomain(), -1, message);
}

std::string FileName(const std::string& identifier) {
    return identifier + ".json";
}

// Hidden, and named after the writing process so that two processes never share one.
std::string TemporaryPrefix(const std::string& identifier) {
    return "." + FileName(identifier) + ".tmp-";
}

struct DomainFile {
    bool missing = false;
    SettingsDictionary values;
};

std::optional<SettingValue> ValueFromJSON(const json& value) {
    switch (value.type()) {
    case json::value_t::string:
        return value.get<std::string>();
    case json::value_t::boolean:
        return value.get<bool>();
    case json::value_t::number_integer:
        return value.get<int64_t>();
    case json::value_t::number_unsigned: {
        auto number = value.get<uint64_t>();
        if (number <= uint64_t(INT64_MAX))
            return int64_t(number);
        return double(number);
    }
    case json::value_t::number_float:
        return value.get<double>();
    case json::value_t::array: {
        // A list edited by hand may hold a stray number: its texts are still the user's, so they stay.
        std::vector<std::string> strings;
        for (const auto& element : value)
            if (element.is_string())
                strings.push_back(element.get<std::string>());
        return strings;
    }
    default:
        return std::nullopt;
    }
}

json JSONFromValue(const SettingValue& value) {
    return std::visit([](const auto& v) { return json(v); }, value);
}

// Reads a whole domain file. A missing file is not an error; anything else that keeps the file from
// giving a dictionary is, with the reason.
Result<DomainFile> ReadDomainFile(const fs::path& file) {
    int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        // No file, or not even its folder (a file stands in the folder's place): nothing stored yet.
        if (errno == ENOENT || errno == ENOTDIR)
            return DomainFile{true, {}};
        return SettingsError(std::strerror(errno));
    }
    std::string text;
    struct stat info {};
    if (::fstat(fd, &info) == 0 && S_ISDIR(info.st_mode)) {
        ::close(fd);
        return SettingsError("it is a folder");
    }
    char buffer[65536];
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            int error = errno;
            ::close(fd);
            return SettingsError(std::strerror(error));
        }
        if (n == 0)
            break;
        text.append(buffer, size_t(n));
    }
    ::close(fd);

    json document = json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (document.is_discarded())
        return SettingsError("it is not valid JSON");
    if (!document.is_object())
        return SettingsError("it does not hold a JSON object");
    DomainFile domain;
    for (const auto& [key, value] : document.items()) {
        if (auto setting = ValueFromJSON(value))
            domain.values.emplace(key, std::move(*setting));
        else
            Log(LogPrefix, "ignored \"" + key + "\" in " + file.string() + ": not a setting's type");
    }
    return domain;
}

std::string UTCStamp() {
    std::time_t now = std::time(nullptr);
    std::tm parts{};
    gmtime_r(&now, &parts);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &parts);
    return stamp;
}

// Moves a damaged file out of the way under a name no other file has; answers where it went.
std::optional<fs::path> SetAside(const fs::path& file) {
    std::string base = file.string() + ".corrupt-" + UTCStamp();
    for (int attempt = 1; attempt < 1000; ++attempt) {
        fs::path aside = attempt == 1 ? fs::path(base) : fs::path(base + "-" + std::to_string(attempt));
        std::error_code error;
        if (fs::symlink_status(aside, error).type() != fs::file_type::not_found)
            continue;
        if (::rename(file.c_str(), aside.c_str()) == 0)
            return aside;
        return std::nullopt;
    }
    return std::nullopt;
}

// Temporary files left by writers that died before their rename: the settings file itself is whole,
// so they are only litter. Those of a live process (another instance, writing now) stay.
void RemoveAbandonedTemporaries(const fs::path& folder, const std::string& identifier) {
    std::string prefix = TemporaryPrefix(identifier);
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) {
        std::string name = entry.path().filename().string();
        if (name.rfind(prefix, 0) != 0)
            continue;
        pid_t pid = 0;
        const char* digits = name.c_str() + prefix.size();
        auto [end, parseError] = std::from_chars(digits, name.c_str() + name.size(), pid);
        if (parseError != std::errc() || *end != '\0' || pid <= 0)
            continue;
        if (pid != ::getpid() && ::kill(pid, 0) != 0 && errno == ESRCH) {
            std::error_code ignored;
            fs::remove(entry.path(), ignored);
        }
    }
}

bool WriteAll(int fd, const std::string& text) {
    for (size_t done = 0; done < text.size();) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += size_t(n);
    }
    return true;
}

std::string NumberText(double value) {
    char text[64];
    auto [end, error] = std::to_chars(text, text + sizeof text, value);
    return error == std::errc() ? std::string(text, end) : std::string();
}

} // namespace

SettingsStore::SettingsStore(std::string identifier) : SettingsStore(identifier, DefaultFolder()) {}

SettingsStore::SettingsStore(std::string identifier, fs::path folder)
    : _identifier(std::move(identifier)), _folder(std::move(folder)), _file(_folder / FileName(_identifier)) {
    load();
}

fs::path SettingsStore::DefaultFolder() {
    const char* config = std::getenv("XDG_CONFIG_HOME");
    // Relative values are to be ignored: they would move with the working folder.
    if (config && config[0] == '/')
        return config;
    const char* home = std::getenv("HOME");
    if (home && home[0] != '\0')
        return fs::path(home) / ".config";
    if (const passwd* user = ::getpwuid(::getuid()); user && user->pw_dir)
        return fs::path(user->pw_dir) / ".config";
    return fs::temp_directory_path();
}

void SettingsStore::load() {
    std::lock_guard guard(_lock);
    RemoveAbandonedTemporaries(_folder, _identifier);
    auto read = ReadDomainFile(_file);
    if (read) {
        _values = std::move(read.value().values);
        return;
    }
    _values.clear();
    std::string reason = read.error().message();
    if (auto aside = SetAside(_file)) {
        Log(LogPrefix, "could not read " + _file.string() + " (" + reason + "); set it aside as " +
                           aside->filename().string() + " and started from the defaults");
    } else {
        _writeBlocked = true;
        Log(LogPrefix, "could not read " + _file.string() + " (" + reason + ") nor set it aside (" +
                           std::strerror(errno) + "); started from the defaults and will not write over it");
    }
}

SettingsStore::~SettingsStore() {
    // The writer's queue runs what was queued before it goes.
    _writer.reset();
}

void SettingsStore::queueWrite() {
    if (_writeQueued)
        return;
    if (!_writer)
        _writer = std::make_unique<SerialQueue>("settings");
    _writeQueued = true;
    _writer->post([this] { writeQueued(); });
}

void SettingsStore::writeQueued() {
    SettingsDictionary values;
    std::function<void(const fs::path&)> beforeRename;
    {
        std::lock_guard guard(_lock);
        // From here on, a change queues a write of its own, which will carry it.
        _writeQueued = false;
        values = _values;
        beforeRename = _beforeRename;
    }
    Result<void> written = write(values, beforeRename);
    std::lock_guard guard(_lock);
    _lastWrite = std::move(written);
}

Result<void> SettingsStore::flush() {
    SerialQueue* writer = nullptr;
    {
        std::lock_guard guard(_lock);
        writer = _writer.get();
    }
    // Writes run in order on the writer: once an empty task has run there, every queued one has.
    if (writer)
        writer->sync([] {});
    std::lock_guard guard(_lock);
    return _lastWrite;
}

Result<void> SettingsStore::write(const SettingsDictionary& values,
                                  const std::function<void(const fs::path&)>& beforeRename) const {
    if (_writeBlocked)
        return SettingsError("The settings file " + _file.string() +
                             " could not be read nor set aside, so it is not written over");

    json document = json::object();
    for (const auto& [key, value] : values)
        document[key] = JSONFromValue(value);
    // Strings that are not valid UTF-8 are written with replacement characters rather than failing.
    std::string text = document.dump(4, ' ', false, json::error_handler_t::replace) + "\n";

    // Write through a symbolic link (settings kept in a dotfiles repository) rather than replace it.
    fs::path target = _file;
    std::error_code error;
    if (fs::is_symlink(_file, error)) {
        if (auto resolved = fs::weakly_canonical(_file, error); !error)
            target = resolved;
    }
    fs::path folder = target.parent_path();
    fs::create_directories(folder, error);

    fs::path temporary = folder / (TemporaryPrefix(_identifier) + std::to_string(::getpid()));
    auto fail = [&](const char* step) {
        std::string message = "Could not save the settings in " + target.string() + " (" + step + ": " +
                              std::strerror(errno) + ")";
        ::unlink(temporary.c_str());
        Log(LogPrefix, message);
        return SettingsError(message);
    };

    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return fail("create");
    if (!WriteAll(fd, text)) {
        int saved = errno;
        ::close(fd);
        errno = saved;
        return fail("write");
    }
    if (::fsync(fd) != 0) {
        int saved = errno;
        ::close(fd);
        errno = saved;
        return fail("flush");
    }
    if (::close(fd) != 0)
        return fail("close");

    if (beforeRename)
        beforeRename(temporary);

    if (::rename(temporary.c_str(), target.c_str()) != 0)
        return fail("rename");
    // The rename lives in the folder: flush it too, or a power cut may bring back the old name.
    int folderFd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folderFd >= 0) {
        ::fsync(folderFd);
        ::close(folderFd);
    }
    return {};
}

void SettingsStore::registerDefaults(const SettingsDictionary& defaults) {
    std::lock_guard guard(_lock);
    for (const auto& [key, value] : defaults)
        _defaults.insert_or_assign(key, value);
}

std::optional<SettingValue> SettingsStore::lookup(const std::string& key) const {
    if (auto found = _values.find(key); found != _values.end())
        return found->second;
    if (auto found = _defaults.find(key); found != _defaults.end())
        return found->second;
    return std::nullopt;
}

std::optional<SettingValue> SettingsStore::objectForKey(const std::string& key) const {
    std::lock_guard guard(_lock);
    return lookup(key);
}

std::optional<std::string> SettingsStore::stringForKey(const std::string& key) const {
    auto value = objectForKey(key);
    if (!value)
        return std::nullopt;
    if (auto* text = std::get_if<std::string>(&*value))
        return *text;
    if (auto* number = std::get_if<int64_t>(&*value))
        return std::to_string(*number);
    if (auto* number = std::get_if<double>(&*value))
        return NumberText(*number);
    if (auto* flag = std::get_if<bool>(&*value))
        return std::string(*flag ? "1" : "0");
    return std::nullopt;
}

int64_t SettingsStore::integerForKey(const std::string& key) const {
    auto value = objectForKey(key);
    if (!value)
        return 0;
    if (auto* number = std::get_if<int64_t>(&*value))
        return *number;
    if (auto* flag = std::get_if<bool>(&*value))
        return *flag ? 1 : 0;
    if (auto* number = std::get_if<double>(&*value)) {
        // Saturate rather than overflow; NaN reads as 0.
        if (std::isnan(*number))
            return 0;
        if (*number >= 9.2233720368547758e18)
            return INT64_MAX;
        if (*number <= -9.2233720368547758e18)
            return INT64_MIN;
        return int64_t(*number);
    }
    if (auto* text = std::get_if<std::string>(&*value)) {
        long long number = std::strtoll(text->c_str(), nullptr, 10);
        return int64_t(number);
    }
    return 0;
}

double SettingsStore::doubleForKey(const std::string& key) const {
    auto value = objectForKey(key);
    if (!value)
        return 0;
    if (auto* number = std::get_if<double>(&*value))
        return *number;
    if (auto* number = std::get_if<int64_t>(&*value))
        return double(*number);
    if (auto* flag = std::get_if<bool>(&*value))
        return *flag ? 1 : 0;
    if (auto* text = std::get_if<std::string>(&*value))
        return std::strtod(text->c_str(), nullptr);
    return 0;
}

bool SettingsStore::boolForKey(const std::string& key) const {
    auto value = objectForKey(key);
    if (!value)
        return false;
    if (auto* flag = std::get_if<bool>(&*value))
        return *flag;
    if (auto* number = std::get_if<int64_t>(&*value))
        return *number != 0;
    if (auto* number = std::get_if<double>(&*value))
        return *number != 0;
    if (auto* text = std::get_if<std::string>(&*value)) {
        const char* start = text->c_str();
        while (*start == ' ' || *start == '\t')
            ++start;
        if (::strcasecmp(start, "yes") == 0 || ::strcasecmp(start, "true") == 0)
            return true;
        return std::strtoll(start, nullptr, 10) != 0;
    }
    return false;
}

std::optional<std::vector<std::string>> SettingsStore::stringArrayForKey(const std::string& key) const {
    auto value = objectForKey(key);
    if (!value)
        return std::nullopt;
    if (auto* strings = std::get_if<std::vector<std::string>>(&*value))
        return *strings;
    return std::nullopt;
}

Result<void> SettingsStore::setObject(SettingValue value, const std::string& key) {
    if (auto* number = std::get_if<double>(&value); number && !std::isfinite(*number))
        return SettingsError("The setting \"" + key + "\" cannot be " + NumberText(*number) +
                             ": only finite numbers can be saved");
    std::lock_guard guard(_lock);
    _values.insert_or_assign(key, std::move(value));
    queueWrite();
    return {};
}

Result<void> SettingsStore::setString(const std::string& value, const std::string& key) {
    return setObject(value, key);
}

Result<void> SettingsStore::setInteger(int64_t value, const std::string& key) {
    return setObject(value, key);
}

Result<void> SettingsStore::setDouble(double value, const std::string& key) {
    return setObject(value, key);
}

Result<void> SettingsStore::setBool(bool value, const std::string& key) {
    return setObject(value, key);
}

Result<void> SettingsStore::setStringArray(const std::vector<std::string>& value, const std::string& key) {
    return setObject(value, key);
}

Result<void> SettingsStore::removeObjectForKey(const std::string& key) {
    std::lock_guard guard(_lock);
    if (_values.erase(key) != 0)
        queueWrite();
    return {};
}

SettingsDictionary SettingsStore::persistentDomain() const {
    std::lock_guard guard(_lock);
    return _values;
}

std::optional<SettingsDictionary>
SettingsStore::persistentDomainForName(const std::string& identifier) const {
    if (identifier == _identifier)
        return persistentDomain();
    fs::path file = _folder / FileName(identifier);
    auto read = ReadDomainFile(file);
    if (!read) {
        Log(LogPrefix, "could not read " + file.string() + " (" + read.error().message() + ")");
        return std::nullopt;
    }
    if (read.value().missing)
        return std::nullopt;
    return std::move(read.value().values);
}

void SettingsStore::setBeforeRenameHook(std::function<void(const fs::path& temporary)> hook) {
    std::lock_guard guard(_lock);
    _beforeRename = std::move(hook);
}

} // namespace quorva
