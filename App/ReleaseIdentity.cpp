#include "App/ReleaseIdentity.h"

namespace quorva {

const ReleaseIdentity& ThisRelease() {
    static constexpr ReleaseIdentity identity{QUORVA_VERSION, QUORVA_RELEASE_REPOSITORY,
                                              QUORVA_UPDATE_PUBLIC_KEY};
    return identity;
}

} // namespace quorva
