#pragma once

#include <cstdint>

namespace quorva {

// A picture as sources deliver it and the take records it: 8-bit BGRA with straight (not
// premultiplied) alpha. It lives either in GPU memory (a Texture) or in the processor's (a
// MemoryPicture); the picture engine that made it knows which, and everyone else holds it only as this.
// A picture lives while anyone holds it, and whoever made it draws into it again only once nobody else
// does.
class Picture {
public:
    virtual ~Picture() = default;
    virtual uint32_t width() const = 0;
    virtual uint32_t height() const = 0;
};

} // namespace quorva
