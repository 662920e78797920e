#include "updater/ReleaseInfo.h"

#include "updater/Version.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>

namespace quorva {

namespace {

using nlohmann::json;

const UpdateError Invalid{UpdateError::Kind::InvalidManifest, {}, {}};

// The text at `key`, nothing when absent or null; `false` when the field is there but is no text.
bool ReadText(const json& entry, const char* key, std::optional<std::string>& into) {
    const auto field = entry.find(key);
    if (field == entry.end() || field->is_null())
        return true;
    if (!field->is_string())
        return false;
    into = field->get<std::string>();
    return true;
}

bool IsWebAddress(const std::string& url) {
    return url.starts_with("https://") || url.starts_with("http://");
}

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

UpdateResult<ReleaseInfo> FromReleaseService(const json& release) {
    std::optional<std::string> tag, body, page;
    if (!ReadText(release, "tag_name", tag) || !tag || !ReadText(release, "body", body) ||
        !ReadText(release, "html_url", page))
        return Invalid;
    ReleaseInfo info{NormalizeVersion(*tag), std::nullopt,      {},  std::nullopt,
                     body.value_or(""),      body.value_or(""), page};
    const auto assets = release.find("assets");
    if (assets != release.end() && !assets->is_array())
        return Invalid;
    for (const json& asset : assets != release.end() ? *assets : json::array()) {
        std::optional<std::string> name, url;
        if (!asset.is_object() || !ReadText(asset, "name", name) ||
            !ReadText(asset, "browser_download_url", url))
            return Invalid;
        if (name && url && Lower(*name).ends_with(".zip")) {
            if (!IsWebAddress(*url))
                return Invalid;
            info.downloadURL = *url;
            return info;
        }
    }
    return UpdateError{UpdateError::Kind::NoZipAsset, {}, {}};
}

UpdateResult<ReleaseInfo> FromManifestEntry(const json& entry) {
    std::optional<std::string> version, notes, notesFR, notesEN, download, sha256, page;
    if (!ReadText(entry, "version", version) || !version || !ReadText(entry, "notes", notes) ||
        !ReadText(entry, "notes_fr", notesFR) || !ReadText(entry, "notes_en", notesEN) ||
        !ReadText(entry, "download_url", download) || !download || !IsWebAddress(*download) ||
        !ReadText(entry, "sha256", sha256) || !ReadText(entry, "html_url", page))
        return Invalid;
    std::optional<int64_t> build;
    if (const auto field = entry.find("build"); field != entry.end() && !field->is_null()) {
        if (!field->is_number_integer())
            return Invalid;
        build = field->get<int64_t>();
    }
    if (sha256) {
        *sha256 = Lower(*sha256);
        if (sha256->size() != 64 || !std::all_of(sha256->begin(), sha256->end(), ::isxdigit))
            return Invalid;
    }
    return ReleaseInfo{
        NormalizeVersion(*version),           build, *download, sha256, notesFR.value_or(notes.value_or("")),
        notesEN.value_or(notes.value_or("")), page};
}

} // namespace

UpdateResult<ReleaseInfo> ParseRelease(std::string_view document, const std::string& bundleIdentifier) {
    const json parsed = json::parse(document, nullptr, /*allow_exceptions=*/false);
    if (!parsed.is_object())
        return Invalid;
    if (parsed.contains("tag_name"))
        return FromReleaseService(parsed);
    if (parsed.contains("version"))
        return FromManifestEntry(parsed);
    if (const auto entry = parsed.find(bundleIdentifier); entry != parsed.end() && entry->is_object())
        return FromManifestEntry(*entry);
    return Invalid;
}

} // namespace quorva
