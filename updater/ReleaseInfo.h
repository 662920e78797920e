#pragma once

#include "updater/UpdateError.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorva {

// A release that a check found.
struct ReleaseInfo {
    std::string version; // as published, normalised ("1.2.0", not "v1.2.0")
    std::optional<int64_t> build;
    std::string downloadURL;           // the portable .zip
    std::optional<std::string> sha256; // lower-case hex, when the publisher gave it
    std::string notesFR;
    std::string notesEN;
    std::optional<std::string> htmlURL;

    // The archive's detached signature lies beside it: its address with ".sig" added.
    std::string signatureURL() const { return downloadURL + ".sig"; }
    const std::string& localizedNotes(UpdateLanguage language) const {
        return language == UpdateLanguage::French ? notesFR : notesEN;
    }
    bool operator==(const ReleaseInfo&) const = default;
};

// Reads either answer a check can get:
// - the release service's latest release: "tag_name" (the version), "body" (the notes, in both
//   languages), "html_url", and the first of its "assets" whose "name" ends in ".zip" (in any case), whose
//   "browser_download_url" is the download; without one, NoZipAsset;
// - a manifest entry: "version", "build", "notes" (both languages unless "notes_en" or "notes_fr" say
//   otherwise), "download_url", "sha256", "html_url". A manifest serving several programs keeps each
//   entry under the program's identifier ({"org.quorva.QuorvaRecorder": {…}}).
// Anything else, a field of the wrong type, a download that is not http(s) or a checksum that is not 64
// hex digits is InvalidManifest.
UpdateResult<ReleaseInfo> ParseRelease(std::string_view document, const std::string& bundleIdentifier);

} // namespace quorva
