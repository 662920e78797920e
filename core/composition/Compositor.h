#pragma once

#include "core/composition/Layout.h"
#include "platform/PictureEngine.h"

#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace quorva {

// Where `pictures[i]` (nothing for no picture) goes in `layout`'s picture: fitted into
// `layout.frames()[i]` without distortion, upside down where `flipped[i]` (stored bottom-up). A picture
// whose shape is within a pixel of its rectangle's fills it, so near-matches are not framed by a stray
// line. Nothing when the lists do not match the layout, or the picture is empty or larger than
// Compositor::MaximumSide either way.
std::optional<std::vector<PicturePlacement>> Placements(const Layout& layout,
                                                        const std::vector<std::shared_ptr<Picture>>& pictures,
                                                        const std::vector<bool>& flipped);

// Draws the current pictures of the sources into one picture, each fitted into its rectangle of a
// Layout, with the picture engine: the monitor's picture. Safe to call from several threads.
class Compositor {
public:
    using CompletionHandler = std::function<void(const std::shared_ptr<Picture>& target)>;

    // The largest side of a composed picture.
    static constexpr double MaximumSide = 16384;

    // Fails, with the engine's reason, when the engine cannot compose.
    static Result<std::shared_ptr<Compositor>> make(const std::shared_ptr<PictureEngine>& engine);

    Compositor(const Compositor&) = delete;
    Compositor& operator=(const Compositor&) = delete;

    // Draws the Placements() of the pictures over a clear background when `transparent`, else over
    // opaque black with every drawn pixel opaque. Answers the target without waiting for the GPU;
    // `completionHandler` gets it once it is drawn. The target is drawn into again only once nobody
    // holds it. Answers nothing, and draws nothing, where Placements() refuses or the engine does.
    std::shared_ptr<Picture> compose(const Layout& layout,
                                     const std::vector<std::shared_ptr<Picture>>& pictures,
                                     const std::vector<bool>& flipped, bool transparent,
                                     CompletionHandler completionHandler = {});

private:
    explicit Compositor(std::shared_ptr<PictureCompositor> compositor);

    std::shared_ptr<PictureCompositor> _compositor;
};

} // namespace quorva
