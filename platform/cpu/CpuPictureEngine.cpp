#include "platform/cpu/CpuPictureEngine.h"

#include "platform/MemoryPicture.h"
#include "platform/PicturePool.h"
#include "platform/cpu/PictureKernels.h"

#include <libyuv/planar_functions.h>
#include <libyuv/scale_argb.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

namespace quorva {

namespace {
// Composition targets: the monitor's picture being drawn and the one shown, and the preview's fitted
// copies of it, one being drawn and one on screen.
constexpr size_t KeptTargets = 4;

} // namespace

// The targets of every composition, the monitor's and the preview's, so that one composes into what the
// other let go of, and what each target covers, so that a target drawn last with the same placements
// needs no clear.
struct CpuPictureEngine::Targets {
    PicturePool<MemoryPicture> pool{KeptTargets};
    std::mutex lock; // guards covered
    // Keyed by the target itself, never by its address, which a later target may take over.
    std::map<std::weak_ptr<MemoryPicture>, std::vector<int64_t>, std::owner_less<>> covered;

    // Notes what `target` covers now; true when that differs from what it covered last.
    bool remember(const std::shared_ptr<MemoryPicture>& target, const std::vector<int64_t>& now) {
        std::lock_guard guard(lock);
        // Targets that the pool let go of leave entries that nothing matches any more.
        std::erase_if(covered, [](const auto& entry) { return entry.first.expired(); });
        std::vector<int64_t>& last = covered[target];
        if (last == now)
            return false;
        last = now;
        return true;
    }
};

namespace {

Error PictureError(std::string message) {
    return Error(std::string(ApplicationIdentifier) + ".Picture", -1, std::move(message));
}

// Where a picture that the processor did not make ends up: nowhere. Pictures reach this engine from
// sources that hand over memory, from its own compositors, or not at all.
Result<std::shared_ptr<MemoryPicture>> InMemory(const std::shared_ptr<Picture>& picture) {
    auto memory = std::dynamic_pointer_cast<MemoryPicture>(picture);
    if (!memory)
        return PictureError("A picture on the GPU cannot be drawn on the processor");
    return memory;
}

// The placements' pictures, each in memory.
Result<std::vector<std::shared_ptr<MemoryPicture>>>
InMemory(const std::vector<PicturePlacement>& placements) {
    std::vector<std::shared_ptr<MemoryPicture>> pictures;
    for (const PicturePlacement& placement : placements) {
        Result<std::shared_ptr<MemoryPicture>> picture = InMemory(placement.picture);
        if (!picture)
            return picture.error();
        pictures.push_back(std::move(picture.value()));
    }
    return pictures;
}

// The first row to read and the step to the next, so that a picture stored bottom-up reads upright.
const uint8_t* FirstRow(const MemoryPicture& picture, bool flipped) {
    return flipped ? picture.row(picture.height() - 1) : picture.row(0);
}
int Stride(const MemoryPicture& picture, bool flipped) {
    return flipped ? -int(picture.stride()) : int(picture.stride());
}

// A rectangle of whole pixels, from its left column and top row to just past its right and bottom.
struct Box {
    int64_t left = 0, top = 0, right = 0, bottom = 0;

    int64_t width() const { return right - left; }
    int64_t height() const { return bottom - top; }
    bool empty() const { return right <= left || bottom <= top; }
    bool operator==(const Box&) const = default;
    Box operator&(const Box& other) const {
        return {std::max(left, other.left), std::max(top, other.top), std::min(right, other.right),
                std::min(bottom, other.bottom)};
    }
};

Box BoxOf(const PicturePlacement& placement) {
    return {placement.x, placement.y, placement.x + placement.width, placement.y + placement.height};
}

bool Unscaled(const PicturePlacement& placement, const MemoryPicture& picture) {
    return picture.width() == placement.width && picture.height() == placement.height;
}

// Draws the part of each placement that lies in `area` of the target, in order, each replacing what is
// under it, into `to`: the area's top-left pixel, rows `stride` bytes apart. Opaque unless
// `transparent`. What no placement covers is left as it was.
void DrawPlacements(const std::vector<PicturePlacement>& placements,
                    const std::vector<std::shared_ptr<MemoryPicture>>& pictures, Box area, uint8_t* to,
                    ptrdiff_t stride, bool transparent) {
    for (size_t i = 0; i < placements.size(); ++i) {
        const PicturePlacement& placement = placements[i];
        const MemoryPicture& from = *pictures[i];
        const Box drawn = BoxOf(placement) & area;
        if (drawn.empty())
            continue;
        uint8_t* corner = to + (drawn.top - area.top) * stride + (drawn.left - area.left) * 4;
        const auto columns = uint32_t(drawn.width()), rows = uint32_t(drawn.height());
        const int64_t skippedColumns = drawn.left - placement.x, skippedRows = drawn.top - placement.y;
        const int fromStride = Stride(from, placement.flipped);
        if (Unscaled(placement, from)) {
            const uint8_t* first =
                FirstRow(from, placement.flipped) + skippedRows * fromStride + skippedColumns * 4;
            if (transparent)
                libyuv::ARGBCopy(first, fromStride, corner, int(stride), int(columns), int(rows));
            else
                cpu::CopyOpaque(first, fromStride, corner, stride, columns, rows);
            continue;
        }
        // Scaled as a whole, and only the part inside the area kept.
        libyuv::ARGBScaleClip(FirstRow(from, placement.flipped), fromStride, int(from.width()),
                              int(from.height()), corner - skippedColumns * 4 - skippedRows * stride,
                              int(stride), int(placement.width), int(placement.height), int(skippedColumns),
                              int(skippedRows), int(columns), int(rows), libyuv::kFilterBilinear);
        if (!transparent)
            cpu::MakeOpaque(corner, stride, columns, rows);
    }
}

// Each plane's sample of the background, as the conversion itself makes it from a background pixel.
std::array<uint32_t, 4> BackgroundSamples(FrameLayout layout, bool transparent) {
    const uint32_t pixel = transparent ? 0u : 0xFF000000u;
    const std::array<uint32_t, 4> picture{pixel, pixel, pixel, pixel}; // 2 × 2
    const FrameFormat format = FrameFormat::padded(layout, 2, 2);
    std::vector<uint8_t> frame(format.bytes);
    cpu::ConvertPicture(reinterpret_cast<const uint8_t*>(picture.data()), 8, format, frame.data());
    std::array<uint32_t, 4> samples{};
    for (size_t i = 0; i < format.planes.size(); ++i)
        std::memcpy(&samples[i], frame.data() + format.planes[i].offset, SamplingOf(layout, i).bytes);
    return samples;
}

// Sets `count` samples of `bytes` bytes each (1, 2 or 4) to `value`.
void FillSamples(uint8_t* at, size_t count, uint32_t bytes, uint32_t value) {
    if (bytes == 1)
        std::memset(at, int(value), count);
    else if (bytes == 2)
        std::fill_n(reinterpret_cast<uint16_t*>(at), count, uint16_t(value));
    else
        std::fill_n(reinterpret_cast<uint32_t*>(at), count, value);
}

// Fills every sample of the frame that no region covers with the background. Regions start and end on
// whole chroma samples (but for the frame's own edges).
void FillBackground(const FrameFormat& format, uint8_t* frame, const std::vector<Box>& regions,
                    bool transparent) {
    const std::array<uint32_t, 4> background = BackgroundSamples(format.layout, transparent);
    std::vector<std::pair<int64_t, int64_t>> covered;
    for (size_t p = 0; p < format.planes.size(); ++p) {
        const PlaneSampling sampling = SamplingOf(format.layout, p);
        const auto samples = int64_t((format.width + sampling.across - 1) / sampling.across);
        for (size_t row = 0; row < format.planes[p].rows; ++row) {
            const auto y = int64_t(row * sampling.down);
            covered.clear();
            for (const Box& region : regions)
                if (y >= region.top && y < region.bottom)
                    covered.emplace_back(region.left / sampling.across,
                                         (region.right + sampling.across - 1) / sampling.across);
            std::sort(covered.begin(), covered.end());
            covered.emplace_back(samples, samples);
            uint8_t* line = frame + format.planes[p].offset + row * format.planes[p].stride;
            int64_t x = 0;
            for (const auto& [from, to] : covered) {
                if (from > x)
                    FillSamples(line + x * sampling.bytes, size_t(from - x), sampling.bytes, background[p]);
                x = std::max(x, to);
            }
        }
    }
}

// Memory for converted pictures, all of one size, from the processor's allocator.
struct Buffer final : FrameMemory {
    Buffer(uint8_t* bytes, size_t size) : bytes(bytes), length(size) {}
    ~Buffer() override { std::free(bytes); }
    uint8_t* data() const override { return bytes; }
    size_t size() const override { return length; }
    uint8_t* bytes;
    size_t length;
};

// Idle buffers of one size; a buffer in use holds the pool and comes back to it, or is freed when the
// pool has moved to another size meanwhile.
struct BufferPool {
    std::mutex lock;
    size_t size = 0;
    std::vector<std::unique_ptr<Buffer>> idle;
};

class CpuFrameConverter final : public FrameConverter {
public:
    Result<> convert(const std::shared_ptr<Picture>& picture, bool flipped, bool transparent,
                     const FrameFormat& format, Completion completion) override {
        if (!picture)
            return PictureError("Nothing to convert");
        // The pixels whose centres the GPU's pass finds inside the fitted picture.
        const std::array<float, 2> extent =
            FitExtents(picture->width(), picture->height(), format.width, format.height);
        auto range = [](float side, float half) {
            const float first = std::ceil(side * (1 - half) / 2 - 0.5f);
            const float last = std::floor(side * (1 + half) / 2 - 0.5f);
            return std::pair<int64_t, int64_t>(int64_t(std::max(first, 0.0f)),
                                               int64_t(std::min(last, side - 1)) + 1);
        };
        const auto [left, right] = range(float(format.width), extent[0]);
        const auto [top, bottom] = range(float(format.height), extent[1]);
        std::vector<PicturePlacement> placements;
        if (right > left && bottom > top)
            placements.push_back({picture, left, top, right - left, bottom - top, flipped});
        return compose(placements, transparent, format, std::move(completion));
    }

    // Each placement is converted into its part of the frame on its own, straight from its picture where
    // nothing needs scaling: no picture of the whole frame is ever drawn. A placement that shares chroma
    // samples with its surroundings (an odd edge) is first drawn, with them, into a picture of just its
    // region, so that those samples mix what the whole picture would hold there.
    Result<> compose(const std::vector<PicturePlacement>& placements, bool transparent,
                     const FrameFormat& format, Completion completion) override {
        if (format.width < 1 || format.height < 1 || format.planes.empty())
            return PictureError("Nothing to convert");
        Result<std::vector<std::shared_ptr<MemoryPicture>>> inMemory = InMemory(placements);
        if (!inMemory)
            return inMemory.error();
        const std::vector<std::shared_ptr<MemoryPicture>>& pictures = inMemory.value();
        Result<std::shared_ptr<FrameMemory>> memory = take(format.bytes);
        if (!memory)
            return memory.error();
        uint8_t* frame = memory.value()->data();

        const Box whole{0, 0, int64_t(format.width), int64_t(format.height)};
        const PlaneSampling chroma = SamplingOf(format.layout, 1);
        auto down = [](int64_t value, int64_t step) { return value / step * step; };
        auto up = [](int64_t value, int64_t step) { return (value + step - 1) / step * step; };
        std::vector<Box> regions;
        for (const PicturePlacement& placement : placements) {
            const Box drawn = BoxOf(placement) & whole;
            regions.push_back(drawn.empty()
                                  ? Box{}
                                  : Box{down(drawn.left, chroma.across), down(drawn.top, chroma.down),
                                        up(drawn.right, chroma.across), up(drawn.bottom, chroma.down)} &
                                        whole);
        }
        FillBackground(format, frame, regions, transparent);

        const bool alpha = format.layout == FrameLayout::YUVA444P10 || format.layout == FrameLayout::BGRA;
        for (size_t i = 0; i < placements.size(); ++i) {
            const Box& region = regions[i];
            if (region.empty())
                continue;
            const PicturePlacement& placement = placements[i];
            const MemoryPicture& from = *pictures[i];
            const FrameFormat part = format.region(uint32_t(region.left), uint32_t(region.top),
                                                   uint32_t(region.width()), uint32_t(region.height()));
            const bool covered = region == BoxOf(placement);
            const bool overdrawn =
                std::any_of(placements.begin() + ptrdiff_t(i) + 1, placements.end(),
                            [&](const auto& later) { return !(BoxOf(later) & region).empty(); });
            if (covered && !overdrawn && Unscaled(placement, from) && (transparent || !alpha)) {
                cpu::ConvertPicture(FirstRow(from, placement.flipped), Stride(from, placement.flipped), part,
                                    frame);
                continue;
            }
            Result<MemoryPicture*> drawn = scratch(uint32_t(region.width()), uint32_t(region.height()));
            if (!drawn)
                return drawn.error();
            MemoryPicture& picture = *drawn.value();
            if (!covered)
                libyuv::ARGBRect(picture.bytes(), int(picture.stride()), 0, 0, int(region.width()),
                                 int(region.height()), transparent ? 0u : 0xFF000000u);
            DrawPlacements(placements, pictures, region, picture.bytes(), ptrdiff_t(picture.stride()),
                           transparent);
            cpu::ConvertPicture(picture.bytes(), ptrdiff_t(picture.stride()), part, frame);
        }
        completion(std::move(memory.value()));
        return {};
    }

    Result<> prepare(const FrameFormat& format) override {
        Result<std::shared_ptr<FrameMemory>> memory = take(format.bytes);
        return memory ? Result<>() : Result<>(memory.error());
    }

    void forgetPool() override {
        std::vector<std::unique_ptr<Buffer>> dropped;
        std::lock_guard guard(_pool->lock);
        dropped.swap(_pool->idle);
        _pool->size = 0;
        _scratch.reset();
    }

private:
    // Memory of `size` bytes from the pool, or new.
    Result<std::shared_ptr<FrameMemory>> take(size_t size) {
        std::unique_ptr<Buffer> taken;
        {
            std::lock_guard guard(_pool->lock);
            if (_pool->size != size) {
                _pool->idle.clear();
                _pool->size = size;
            }
            if (!_pool->idle.empty()) {
                taken = std::move(_pool->idle.back());
                _pool->idle.pop_back();
            }
        }
        if (!taken) {
            uint8_t* bytes = AllocatePictureMemory(size);
            if (!bytes)
                return PictureError("No memory for a movie picture");
            taken = std::make_unique<Buffer>(bytes, size);
        }
        return std::shared_ptr<FrameMemory>(taken.release(), [pool = _pool](Buffer* buffer) {
            std::unique_ptr<Buffer> owned(buffer);
            std::lock_guard guard(pool->lock);
            if (pool->size == owned->size())
                pool->idle.push_back(std::move(owned));
        });
    }

    // A picture of `width` × `height` to draw a region into, kept for the next one of that size.
    Result<MemoryPicture*> scratch(uint32_t width, uint32_t height) {
        if (!_scratch || _scratch->width() != width || _scratch->height() != height) {
            Result<std::shared_ptr<MemoryPicture>> made = MemoryPicture::make(width, height);
            if (!made)
                return made.error();
            _scratch = std::move(made.value());
        }
        return _scratch.get();
    }

    std::shared_ptr<BufferPool> _pool = std::make_shared<BufferPool>();
    std::shared_ptr<MemoryPicture> _scratch; // a region drawn before its conversion
};

class CpuCompositor final : public PictureCompositor {
public:
    explicit CpuCompositor(std::shared_ptr<CpuPictureEngine::Targets> targets)
        : _targets(std::move(targets)) {}

    Result<std::shared_ptr<Picture>> compose(uint32_t width, uint32_t height,
                                             const std::vector<PicturePlacement>& placements,
                                             bool transparent, Completion completion) override {
        Result<std::vector<std::shared_ptr<MemoryPicture>>> inMemory = InMemory(placements);
        if (!inMemory)
            return inMemory.error();
        const std::vector<std::shared_ptr<MemoryPicture>>& pictures = inMemory.value();
        Result<std::shared_ptr<MemoryPicture>> made = _targets->pool.take(width, height, MemoryPicture::make);
        if (!made)
            return made.error();
        MemoryPicture& target = *made.value();

        // A target drawn last with the same placements needs no clear: every placement covers again
        // what it covered, and the background between them is what it was.
        std::vector<int64_t> covered{transparent, width, height};
        for (const PicturePlacement& placement : placements)
            covered.insert(covered.end(), {placement.x, placement.y, placement.width, placement.height});
        if (_targets->remember(made.value(), covered))
            libyuv::ARGBRect(target.bytes(), int(target.stride()), 0, 0, int(width), int(height),
                             transparent ? 0u : 0xFF000000u);
        DrawPlacements(placements, pictures, {0, 0, int64_t(width), int64_t(height)}, target.bytes(),
                       ptrdiff_t(target.stride()), transparent);
        if (completion)
            completion(made.value());
        return std::shared_ptr<Picture>(made.value());
    }

private:
    std::shared_ptr<CpuPictureEngine::Targets> _targets;
};

} // namespace

std::shared_ptr<CpuPictureEngine> CpuPictureEngine::make() {
    return std::make_shared<CpuPictureEngine>();
}

CpuPictureEngine::CpuPictureEngine() : _targets(std::make_shared<Targets>()) {}

Result<std::shared_ptr<Picture>> CpuPictureEngine::adopt(const std::shared_ptr<MemoryPicture>& picture) {
    return std::shared_ptr<Picture>(picture);
}

Result<std::vector<uint8_t>> CpuPictureEngine::readPixels(const std::shared_ptr<Picture>& picture, uint32_t x,
                                                          uint32_t y, uint32_t width, uint32_t height) {
    Result<std::shared_ptr<MemoryPicture>> memory = InMemory(picture);
    if (!memory)
        return memory.error();
    return memory.value()->readPixels(x, y, width, height);
}

Result<std::unique_ptr<FrameConverter>> CpuPictureEngine::makeFrameConverter() {
    return std::unique_ptr<FrameConverter>(std::make_unique<CpuFrameConverter>());
}

Result<std::shared_ptr<PictureCompositor>> CpuPictureEngine::makeCompositor() {
    return std::shared_ptr<PictureCompositor>(std::make_shared<CpuCompositor>(_targets));
}

} // namespace quorva
