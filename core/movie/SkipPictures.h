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
// encoder's. Every skip picture is a reference picture numbered after the picture before it, and the
// encoder's numbering knows nothing of them. Where the encoder refers to its last picture only, the skip
// pictures, which are that picture to the last sample, stand in for it: the encoder's pictures after them
// are renumbered to follow on (a few fields of fixed length in each slice header). Otherwise the encoder's
// next picture must be an IDR, which costs more than a picture that refers to the one before (and for
// x265 several times as much).
class SkipPictures {
public:
    // For a stream whose encoder gave out `extradata` (Annex B parameter sets). Refused, with the reason,
    // for a codec other than H.264 and HEVC and for what these pictures do not cover: field coding, colour
    // planes coded apart, H.264's picture order count type 1. `lastPictureOnly` says that the encoder is
    // known to refer to its last picture only, so that its pictures may be renumbered where its parameter
    // sets agree (H.264: one reference frame; HEVC's cannot tell, as x265 keeps room for more whatever it
    // refers to, so each renumbered picture is checked); otherwise it restarts after skip pictures.
    static Result<std::unique_ptr<SkipPictures>> make(AVCodecID codec, const uint8_t* extradata, size_t size,
                                                      bool lastPictureOnly = false);
    virtual ~SkipPictures() = default;

    // The parameter set that skip pictures refer to, as an Annex B NAL unit, start code first: it belongs
    // at the end of the stream's extradata, before the muxer writes its header.
    const std::vector<uint8_t>& parameterSet() const { return _parameterSet; }
    // Whether the encoder's next picture after skip pictures must be an IDR: its pictures cannot be
    // renumbered, as it may refer to a picture before its last (not known to refer to the last only;
    // H.264: more than one reference frame; HEVC: more than one reference by default, long-term pictures,
    // or temporal motion vector prediction, which would take the skip pictures' motion for the last
    // picture's), or a renumbered HEVC picture was found to refer to more.
    bool restartsEncoder() const { return _restarts; }
    // Reads how a picture that the encoder gave out (Annex B) is numbered, so that the skip pictures after
    // it follow on. Where skip pictures came since the encoder's last IDR and it is not restarted, the
    // picture is renumbered after them into `renumbered`, to be written in its place; otherwise that is
    // left empty. False when no skip picture can follow it (it is not a reference picture, or it cannot be
    // read): skip pictures made after it would show an older picture.
    virtual bool follow(const uint8_t* data, size_t size, std::vector<uint8_t>& renumbered) = 0;
    // The next skip picture, Annex B, after the last picture followed or made.
    virtual std::vector<uint8_t> next() = 0;

protected:
    std::vector<uint8_t> _parameterSet;
    bool _restarts = true;
    // Skip pictures made since the encoder's last IDR, by which its pictures are renumbered.
    uint32_t _shift = 0;
};

} // namespace quorva
