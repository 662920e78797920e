#include "platform/UserFolders.h"

#include "platform/SettingsStore.h"

#include <cstdlib>
#include <fstream>
#include <pwd.h>
#include <unistd.h>

namespace quorva {

namespace fs = std::filesystem;

fs::path HomeFolder() {
    const char* home = std::getenv("HOME");
    if (home && home[0] != '\0')
        return home;
    if (const passwd* user = ::getpwuid(::getuid()); user && user->pw_dir)
        return user->pw_dir;
    return "/";
}

fs::path MoviesFolder() {
    // Lines read XDG_VIDEOS_DIR="$HOME/Videos": a path in quotes, absolute or starting with $HOME.
    std::ifstream file(SettingsStore::DefaultFolder() / "user-dirs.dirs");
    const std::string key = "XDG_VIDEOS_DIR=";
    fs::path found;
    for (std::string line; std::getline(file, line);) {
        if (line.rfind(key, 0) != 0)
            continue;
        std::string value = line.substr(key.size());
        if (value.size() < 2 || value.front() != '"' || value.back() != '"')
            continue;
        value = value.substr(1, value.size() - 2);
        if (value.rfind("$HOME", 0) == 0)
            found = HomeFolder().string() + value.substr(5);
        else if (!value.empty() && value.front() == '/')
            found = value;
    }
    // Without a videos folder, movies go to the home folder.
    return found.empty() ? HomeFolder() : found;
}

std::string ExpandTilde(const std::string& path) {
    if (path.empty() || path.front() != '~')
        return path;
    size_t slash = path.find('/');
    std::string name = path.substr(1, slash == std::string::npos ? std::string::npos : slash - 1);
    std::string rest = slash == std::string::npos ? "" : path.substr(slash);
    if (name.empty())
        return HomeFolder().string() + rest;
    if (const passwd* user = ::getpwnam(name.c_str()); user && user->pw_dir)
        return user->pw_dir + rest;
    return path;
}

} // namespace quorva
