#include "core/movie/TakeNaming.h"

#include <algorithm>
#include <cctype>
#include <system_error>

namespace quorva {

namespace {

std::string Lowercased(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    return result;
}

// The take's base name: the cleaned name without a ".mov" extension, unless nothing would be left.
std::string BaseName(std::string_view name) {
    std::string base = FileName(name);
    size_t dot = base.rfind('.');
    if (dot != std::string::npos && dot > 0 && Lowercased(std::string_view(base).substr(dot + 1)) == "mov")
        base.erase(dot);
    return base;
}

// Anything at the path counts, a dangling symbolic link included: writing there would still replace it.
bool Taken(const std::filesystem::path& path) {
    std::error_code error;
    std::filesystem::file_status status = std::filesystem::symlink_status(path, error);
    // A path we cannot even look at is not ours to write either.
    if (error && error != std::errc::no_such_file_or_directory)
        return true;
    return std::filesystem::exists(status);
}

} // namespace

const std::vector<std::string>& NameTable(TakeOutput) {
    static const std::vector<std::string> names{"separate", "assembled", "both"};
    return names;
}

std::string FileName(std::string_view name) {
    std::string result(name);
    std::replace(result.begin(), result.end(), '/', '-');
    std::replace(result.begin(), result.end(), ':', '-');
    if (!result.empty() && result.front() == '.')
        result.front() = '-';
    return result;
}

TakeURLs URLsForName(std::string_view name, const std::vector<std::string>& sourceTitles, TakeOutput output,
                     const std::filesystem::path& folder) {
    const bool separate = output == TakeOutput::Separate;
    const bool assembled = !separate;
    const std::string base = BaseName(name);

    std::vector<std::string> titles;
    if (output != TakeOutput::Assembled) {
        for (const std::string& title : sourceTitles)
            titles.push_back(FileName(title));
    }
    // A lone separate movie needs no title to tell it apart.
    const bool single = separate && titles.size() == 1;

    // No upper bound: some number is always free, and the take must never overwrite a file.
    for (int64_t n = 1;; ++n) {
        const std::string stem = n == 1 ? base : base + " " + std::to_string(n);
        TakeURLs urls;
        bool collides = false;
        for (const std::string& title : titles) {
            std::filesystem::path url = folder / ((single ? stem : stem + " — " + title) + ".mov");
            collides = collides || Taken(url);
            urls.separate.push_back(std::move(url));
        }
        if (assembled) {
            urls.assembled = folder / (stem + ".mov");
            collides = collides || Taken(*urls.assembled);
        }
        // The report written at the finish shares the number, so a report left by an earlier take (whose
        // movies may have been moved away) is never overwritten either.
        collides = collides || Taken(folder / (stem + ".json")) || Taken(folder / (stem + ".html"));
        if (!collides) {
            urls.stem = stem;
            return urls;
        }
    }
}

} // namespace quorva
