#include "platform/cpu/CpuPictureEngine.h"

#include "platform/MemoryPicture.h"
#include "platform/PicturePool.h"
#include "platform/cpu/PictureKernels.h"

#include <libyuv/planar_functions.h>
#include <libyuv/scale_argb.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <mutex>

namespace quorva {

namespace {
// Composition targets: the take's assembled picture while up to three wait for its encoder, the one
// being drawn, and the latest one shown.
constexpr size_t KeptTargets = 6;

} // namespace

// The targets of every composition, the take's and the monitor's, so that one composes into what the
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

// The first row to read and the step to the next, so that a picture stored bottom-up reads upright.
const uint8_t* FirstRow(const MemoryPicture& picture, bool flipped) {
    return flipped ? picture.row(picture.height() - 1) : picture.row(0);
}
int Stride(const MemoryPicture& picture, bool flipped) {
    return flipped ? -int(picture.stride()) : int(picture.stride());
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
    Result<> convert(const std::shared_ptr<Picture>& picture, bool flipped, bool transparentBars,
                     const FrameFormat& format, Completion completion) override {
        Result<std::shared_ptr<MemoryPicture>> source = InMemory(picture);
        if (!source)
            return source.error();
        if (format.width < 1 || format.height < 1 || format.planes.empty())
            return PictureError("Nothing to convert");
        Result<std::shared_ptr<FrameMemory>> memory = take(format.bytes);
        if (!memory)
            return memory.error();
        const MemoryPicture& from = *source.value();
        if (from.width() == format.width && from.height() == format.height) {
            cpu::ConvertPicture(FirstRow(from, flipped), Stride(from, flipped), format,
                                memory.value()->data());
        } else {
            Result<const MemoryPicture*> fitted = fit(from, flipped, transparentBars, format);
            if (!fitted)
                return fitted.error();
            cpu::ConvertPicture(fitted.value()->bytes(), ptrdiff_t(fitted.value()->stride()), format,
                                memory.value()->data());
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
        _fitted.reset();
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

    // The picture scaled into the part of the movie's picture that it fills, between bars: the pixels
    // whose centres the GPU's pass finds inside the fitted picture.
    Result<const MemoryPicture*> fit(const MemoryPicture& from, bool flipped, bool transparentBars,
                                     const FrameFormat& format) {
        if (!_fitted || _fitted->width() != format.width || _fitted->height() != format.height) {
            Result<std::shared_ptr<MemoryPicture>> made = MemoryPicture::make(format.width, format.height);
            if (!made)
                return made.error();
            _fitted = std::move(made.value());
        }
        const std::array<float, 2> extent =
            FitExtents(from.width(), from.height(), format.width, format.height);
        auto range = [](float side, float half) {
            const float first = std::ceil(side * (1 - half) / 2 - 0.5f);
            const float last = std::floor(side * (1 + half) / 2 - 0.5f);
            return std::pair<int, int>(int(std::max(first, 0.0f)), int(std::min(last, side - 1)) + 1);
        };
        const auto [left, right] = range(float(format.width), extent[0]);
        const auto [top, bottom] = range(float(format.height), extent[1]);
        MemoryPicture& fitted = *_fitted;
        libyuv::ARGBRect(fitted.bytes(), int(fitted.stride()), 0, 0, int(format.width), int(format.height),
                         transparentBars ? 0u : 0xFF000000u);
        if (right > left && bottom > top)
            libyuv::ARGBScale(FirstRow(from, flipped), Stride(from, flipped), int(from.width()),
                              int(from.height()), fitted.row(uint32_t(top)) + size_t(left) * 4,
                              int(fitted.stride()), right - left, bottom - top, libyuv::kFilterBilinear);
        return _fitted.get();
    }

    std::shared_ptr<BufferPool> _pool = std::make_shared<BufferPool>();
    std::shared_ptr<MemoryPicture> _fitted; // the movie's picture before conversion, when it needs fitting
};

class CpuCompositor final : public PictureCompositor {
public:
    explicit CpuCompositor(std::shared_ptr<CpuPictureEngine::Targets> targets)
        : _targets(std::move(targets)) {}

    Result<std::shared_ptr<Picture>> compose(uint32_t width, uint32_t height,
                                             const std::vector<PicturePlacement>& placements,
                                             bool transparent, Completion completion) override {
        std::vector<std::shared_ptr<MemoryPicture>> pictures;
        for (const PicturePlacement& placement : placements) {
            Result<std::shared_ptr<MemoryPicture>> picture = InMemory(placement.picture);
            if (!picture)
                return picture.error();
            pictures.push_back(std::move(picture.value()));
        }
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

        for (size_t i = 0; i < placements.size(); ++i) {
            const PicturePlacement& placement = placements[i];
            const MemoryPicture& from = *pictures[i];
            const int64_t left = std::max<int64_t>(placement.x, 0), top = std::max<int64_t>(placement.y, 0);
            const int64_t right = std::min<int64_t>(placement.x + placement.width, width);
            const int64_t bottom = std::min<int64_t>(placement.y + placement.height, height);
            if (right <= left || bottom <= top)
                continue;
            uint8_t* corner = target.row(uint32_t(top)) + size_t(left) * 4;
            const uint32_t columns = uint32_t(right - left), rows = uint32_t(bottom - top);
            if (from.width() == placement.width && from.height() == placement.height && left == placement.x &&
                top == placement.y && columns == placement.width && rows == placement.height) {
                if (transparent)
                    libyuv::ARGBCopy(FirstRow(from, placement.flipped), Stride(from, placement.flipped),
                                     corner, int(target.stride()), int(columns), int(rows));
                else
                    cpu::CopyOpaque(FirstRow(from, placement.flipped), Stride(from, placement.flipped),
                                    corner, ptrdiff_t(target.stride()), columns, rows);
                continue;
            }
            // Scaled as a whole, and only the part inside the target kept.
            libyuv::ARGBScaleClip(
                FirstRow(from, placement.flipped), Stride(from, placement.flipped), int(from.width()),
                int(from.height()),
                corner - (left - placement.x) * 4 - (top - placement.y) * ptrdiff_t(target.stride()),
                int(target.stride()), int(placement.width), int(placement.height), int(left - placement.x),
                int(top - placement.y), int(columns), int(rows), libyuv::kFilterBilinear);
            if (!transparent)
                cpu::MakeOpaque(corner, ptrdiff_t(target.stride()), columns, rows);
        }
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
