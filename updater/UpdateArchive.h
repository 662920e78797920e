#pragma once

#include "updater/UpdateError.h"

#include <filesystem>
#include <string>
#include <string_view>

namespace quorva {

// The portable archive a release is downloaded as, and the checks it passes before anything of it runs.

// Lower-case hex SHA-256 of a file.
UpdateResult<std::string> FileSHA256(const std::filesystem::path& file);

// Checks the archive's detached signature: one line of base64 holding the signer's 32-byte Ed25519
// public key and then the 64-byte signature of the whole archive. It must be signed by `publicKey`
// (base64, the key built into this program): another signer is TeamIdentifierMismatch, naming both
// keys' fingerprints; a signature that is malformed or does not match the archive, or a program with no
// key, is InvalidCodeSignature.
UpdateResult<> VerifyArchiveSignature(const std::filesystem::path& archive, std::string_view signature,
                                      std::string_view publicKey);

// Extracts a .zip into `folder`, which it creates. Entries that would land outside it (absolute paths,
// "..") or write through a link fail the extraction, as does anything the archive library refuses.
UpdateResult<> ExtractZip(const std::filesystem::path& archive, const std::filesystem::path& folder);

// The name of the file that marks a folder as a portable install: one that updates itself.
inline constexpr const char* PortableInstallMarker = "portable-install.txt";
// The program's file name in an install folder.
inline constexpr const char* ProgramFileName = "quorvarecorder";

// Whether `folder` holds a portable install: the program (a plain executable file) and the marker.
bool IsPortableInstall(const std::filesystem::path& folder);

// The portable install in an extracted archive: `folder` itself or one of the folders directly in it
// (the first by name); else AppBundleNotFound.
UpdateResult<std::filesystem::path> FindInstallFolder(const std::filesystem::path& folder);

} // namespace quorva
