#pragma once

#include <string_view>

namespace quorva {

// What this build of the program is: its version and where its updates come from. Each program is
// linked with its own copy (ReleaseIdentity.cpp, compiled with the values its build was given), so that
// a change of version relinks the program rather than rebuilding the modules, and the update tests can
// build an older and a newer program from the same sources.
struct ReleaseIdentity {
    std::string_view version;           // "dev" for a build that is no release
    std::string_view releaseRepository; // owner/name of the repository whose releases update it
    // Base64 of the Ed25519 public key whose signature a portable archive must carry to replace this
    // program; empty in a build that no signing key was given to, which then installs no update.
    std::string_view updatePublicKey;
};

const ReleaseIdentity& ThisRelease();

} // namespace quorva
