#pragma once

#include <filesystem>
#include <string>

namespace quorva {

// $HOME, else the password database's home folder, else "/".
std::filesystem::path HomeFolder();

// The user's videos folder as the XDG user-dirs file ("$XDG_CONFIG_HOME/user-dirs.dirs") names it,
// whether or not it exists yet; the home folder when the file names none.
std::filesystem::path MoviesFolder();

// "~" and "~/…" become the home folder, "~name/…" that user's home folder; any other path, or a user
// that does not exist, is returned as it is.
std::string ExpandTilde(const std::string& path);

} // namespace quorva
