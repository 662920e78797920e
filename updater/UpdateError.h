#pragma once

#include "platform/Error.h"

#include <cstdint>
#include <string>

namespace quorva {

// The languages the updater's texts are shown in: the window's two.
enum class UpdateLanguage { English, French };

// Why a check or an install failed. The window shows these in its language, so a failure keeps its
// parts rather than one English sentence.
struct UpdateError {
    enum class Kind {
        HTTPStatus, // detail: the status code
        InvalidManifest,
        NoZipAsset,
        ChecksumMismatch,
        ExtractionFailed, // detail: what the archive library said
        AppBundleNotFound,
        InvalidCodeSignature,
        TeamIdentifierMismatch, // expected and detail (found): the two signing keys' fingerprints
        InstallerLaunchFailed,  // detail: the system's reason
        NetworkFailed,          // detail: the transfer library's reason (a time-out among them)
        StorageFailed,          // detail: the file or folder and the system's reason
        PackageManaged,         // detail: the install folder
        NotPortable,            // detail: the install folder
    };
    Kind kind;
    std::string detail;
    std::string expected;
};

template <class T = void>
using UpdateResult = Result<T, UpdateError>;

// The text that tells the user what went wrong.
std::string DescribeError(const UpdateError& error, UpdateLanguage language);

} // namespace quorva
