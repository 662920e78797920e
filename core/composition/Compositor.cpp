#include "core/composition/Compositor.h"

#include "platform/Log.h"

#include <cmath>

namespace quorva {

namespace {

// Where a source of the picture's size goes inside its rectangle, keeping its aspect ratio.
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

std::optional<std::vector<PicturePlacement>> Placements(const Layout& layout,
                                                        const std::vector<std::shared_ptr<Picture>>& pictures,
                                                        const std::vector<bool>& flipped) {
    const std::vector<Rect>& frames = layout.frames();
    const Size picture = layout.size();
    if (pictures.size() != frames.size() || flipped.size() != frames.size())
        return std::nullopt;
    if (!(picture.width >= 1 && picture.width <= Compositor::MaximumSide && picture.height >= 1 &&
          picture.height <= Compositor::MaximumSide))
        return std::nullopt;
    std::vector<PicturePlacement> placements;
    for (size_t i = 0; i < frames.size(); ++i) {
        if (!pictures[i])
            continue;
        const Rect fitted = Fit(frames[i], *pictures[i]);
        placements.push_back({pictures[i], std::llround(fitted.x), std::llround(fitted.y),
                              std::llround(fitted.width), std::llround(fitted.height), bool(flipped[i])});
    }
    return placements;
}

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
    std::optional<std::vector<PicturePlacement>> placements = Placements(layout, pictures, flipped);
    if (!placements)
        return nullptr;
    const Size picture = layout.size();
    Result<std::shared_ptr<Picture>> composed =
        _compositor->compose(uint32_t(picture.width), uint32_t(picture.height), *placements, transparent,
                             std::move(completionHandler));
    if (!composed) {
        Log("Compositor: ", composed.error().message());
        return nullptr;
    }
    return composed.value();
}

} // namespace quorva
