#include "core/Compositor.h"

#include "platform/Log.h"

#include <cmath>

namespace quorva {

namespace {

// Where a source of the picture's size goes inside its rectangle, keeping its aspect ratio. A source
// within a pixel of the rectangle's shape fills it, so near-matches are not framed by a stray line.
Rect Fit(Rect rectangle, const Picture& picture) {
    double textureWidth = picture.width(), textureHeight = picture.height();
    double fittedWidth = rectangle.height * textureWidth / textureHeight;
    if (fittedWidth < rectangle.width - 1) {
        rectangle.x += std::floor((rectangle.width - fittedWidth) / 2);
        rectangle.width = std::round(fittedWidth);
    } else if (fittedWidth > rectangle.width + 1) {
        double fittedHeight = rectangle.width * textureHeight / textureWidth;
        rectangle.y += std::floor((rectangle.height - fittedHeight) / 2);
        rectangle.height = std::round(fittedHeight);
    }
    return rectangle;
}

} // namespace

Result<std::shared_ptr<Compositor>> Compositor::make(const std::shared_ptr<PictureEngine>& engine) {
    Result<std::shared_ptr<PictureCompositor>> compositor = engine->makeCompositor();
    if (!compositor)
        return compositor.error();
    return std::shared_ptr<Compositor>(new Compositor(std::move(compositor.value())));
}

Compositor::Compositor(std::shared_ptr<PictureCompositor> compositor) : _compositor(std::move(compositor)) {}

std::shared_ptr<Picture> Compositor::compose(const Layout& layout,
                                             const std::vector<std::shared_ptr<Picture>>& pictures,
                                             const std::vector<bool>& flipped, bool transparent,
                                             CompletionHandler completionHandler) {
    const std::vector<Rect>& frames = layout.frames();
    Size picture = layout.size();
    if (pictures.size() != frames.size() || flipped.size() != frames.size())
        return nullptr;
    if (!(picture.width >= 1 && picture.width <= MaximumSide && picture.height >= 1 &&
          picture.height <= MaximumSide))
        return nullptr;
    std::vector<PicturePlacement> placements;
    for (size_t i = 0; i < frames.size(); ++i) {
        if (!pictures[i])
            continue;
        const Rect fitted = Fit(frames[i], *pictures[i]);
        placements.push_back({pictures[i], std::llround(fitted.x), std::llround(fitted.y),
                              std::llround(fitted.width), std::llround(fitted.height), bool(flipped[i])});
    }
    Result<std::shared_ptr<Picture>> composed =
        _compositor->compose(uint32_t(picture.width), uint32_t(picture.height), placements, transparent,
                             std::move(completionHandler));
    if (!composed) {
        Log("Compositor: ", composed.error().message());
        return nullptr;
    }
    return composed.value();
}

} // namespace quorva
