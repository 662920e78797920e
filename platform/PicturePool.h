#pragma once

#include "platform/Error.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace quorva {

// Pictures of one engine kept for reuse. Only the pool hands out holds on its pictures, so a picture that
// the pool alone holds is free: nobody, the GPU included, still reads or writes it. Safe to use from
// several threads.
template <class P>
class PicturePool {
public:
    // Beyond `kept` pictures a busy consumer only costs memory: extra ones are handed out, not kept.
    explicit PicturePool(size_t kept) : _kept(kept) {}

    // A picture of `width` × `height` that nobody else holds, else a new one from `make(width, height)`.
    // Pictures of another size are let go as they come free.
    template <class Make>
    Result<std::shared_ptr<P>> take(uint32_t width, uint32_t height, Make&& make) {
        {
            std::lock_guard guard(_lock);
            for (auto it = _pictures.begin(); it != _pictures.end();) {
                if (it->use_count() != 1) {
                    ++it;
                } else if ((*it)->width() == width && (*it)->height() == height) {
                    return *it;
                } else {
                    it = _pictures.erase(it);
                }
            }
        }
        Result<std::shared_ptr<P>> made = make(width, height);
        if (made) {
            std::lock_guard guard(_lock);
            if (_pictures.size() < _kept)
                _pictures.push_back(made.value());
        }
        return made;
    }

private:
    const size_t _kept;
    std::mutex _lock;
    std::vector<std::shared_ptr<P>> _pictures;
};

} // namespace quorva
