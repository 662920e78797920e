#pragma once

#include "platform/Error.h"

extern "C" {
#include <libavcodec/codec_id.h>
}

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace quorva {

// Makes the pictures of an H.264 or HEVC stream that show the picture before them again, exactly, without
// an encoder: P pictures whose every block is skipped (zero motion from the last picture, no residual, no
// loop filter). A held slot of a movie costs one of these, a few bytes made in microseconds, where encoding
// the last picture again costs most of what a new one does.
//
// They refer to a picture parameter set of their own, which makes their slices trivial (CAVLC for H.264;
// no tiles, wavefronts or loop filters for HEVC) and which goes into the stream's global header beside the
// encoder's. Every skip picture is a reference picture numbered after the picture before it, so the
// encoder's next picture, whose numbering knows nothing of them, must be an IDR.
class SkipPictures {
public:
    // For a stream whose encoder gave out `extradata` (Annex B parameter sets). Refused, with the reason,
    // for a codec other than H.264 and HEVC and for what these pictures do not cover: field coding, colour
    // planes coded apart, H.264's picture order count type 1, HEVC's range extensions of the slice header.
    static Result<std::unique_ptr<SkipPictures>> make(AVCodecID codec, const uint8_t* extradata, size_t size);
    virtual ~SkipPictures() = default;

    // The parameter set that skip pictures refer to, as an Annex B NAL unit, start code first: it belongs
    // at the end of the stream's extradata, before the muxer writes its header.
    const std::vector<uint8_t>& parameterSet() const { return _parameterSet; }
    // Reads how a picture that the encoder gave out (Annex B) is numbered, so that the skip pictures after
    // it follow on. False when none can follow it (it is not a reference picture, or it cannot be read):
    // skip pictures made after it would show an older picture.
    virtual bool follow(const uint8_t* data, size_t size) = 0;
    // The next skip picture, Annex B, after the last picture followed or made.
    virtual std::vector<uint8_t> next() = 0;

protected:
    std::vector<uint8_t> _parameterSet;
};

} // namespace quorva
