#include "core/movie/SkipPictures.h"

#include "core/movie/MovieWriter.h"
#include "platform/Log.h"

#include <algorithm>
#include <array>
#include <map>
#include <string>

namespace quorva {

namespace {

// --- NAL units and their bits ------------------------------------------------------------------------

// The NAL units of an Annex B stream, each without its start code and with the emulation prevention
// bytes still in.
std::vector<std::pair<const uint8_t*, size_t>> NalUnits(const uint8_t* data, size_t size) {
    std::vector<std::pair<const uint8_t*, size_t>> units;
    size_t start = SIZE_MAX;
    for (size_t i = 0; i + 2 < size; ++i) {
        if (data[i] != 0 || data[i + 1] != 0 || data[i + 2] != 1)
            continue;
        if (start != SIZE_MAX) {
            size_t end = i;
            while (end > start && data[end - 1] == 0) // a four-byte start code, or trailing zeros
                --end;
            units.emplace_back(data + start, end - start);
        }
        start = i + 3;
        i += 2;
    }
    if (start != SIZE_MAX && start < size)
        units.emplace_back(data + start, size - start);
    return units;
}

// The payload of a NAL unit without its emulation prevention bytes (ITU-T H.264 7.4.1, H.265 7.4.2).
std::vector<uint8_t> Unescape(const uint8_t* data, size_t size) {
    std::vector<uint8_t> out;
    out.reserve(size);
    int zeros = 0;
    for (size_t i = 0; i < size; ++i) {
        if (zeros >= 2 && data[i] == 3) {
            zeros = 0;
            continue;
        }
        zeros = data[i] == 0 ? zeros + 1 : 0;
        out.push_back(data[i]);
    }
    return out;
}

// A NAL unit with a start code, from its header and payload, emulation prevention bytes put in.
std::vector<uint8_t> Escape(const std::vector<uint8_t>& header, const std::vector<uint8_t>& payload) {
    std::vector<uint8_t> out{0, 0, 0, 1};
    out.insert(out.end(), header.begin(), header.end());
    int zeros = 0;
    for (uint8_t byte : payload) {
        if (zeros >= 2 && byte <= 3) {
            out.push_back(3);
            zeros = 0;
        }
        zeros = byte == 0 ? zeros + 1 : 0;
        out.push_back(byte);
    }
    // A payload that ends in zeros (cabac_zero_words) must not run into the next start code.
    if (!payload.empty() && payload.back() == 0)
        out.push_back(3);
    return out;
}

// Reads the bits of a payload; reading past its end sets `failed` and gives zeros.
class BitReader {
public:
    explicit BitReader(std::vector<uint8_t> bytes) : _bytes(std::move(bytes)) {}
    uint32_t bit() {
        if (_position >= _bytes.size() * 8) {
            failed = true;
            return 0;
        }
        const uint32_t value = (_bytes[_position / 8] >> (7 - _position % 8)) & 1;
        ++_position;
        return value;
    }
    uint32_t bits(int count) {
        uint32_t value = 0;
        for (int i = 0; i < count; ++i)
            value = (value << 1) | bit();
        return value;
    }
    void skip(int count) {
        for (int i = 0; i < count; ++i)
            bit();
    }
    // Exp-Golomb codes; more than 31 leading zeros is no valid code.
    uint32_t ue() {
        int zeros = 0;
        while (!bit()) {
            if (failed || ++zeros > 31) {
                failed = true;
                return 0;
            }
        }
        return uint32_t((uint64_t(1) << zeros) - 1 + bits(zeros));
    }
    int32_t se() {
        const uint32_t code = ue();
        return code & 1 ? int32_t((code + 1) / 2) : -int32_t(code / 2);
    }

    size_t position() const { return _position; }

    bool failed = false;

private:
    std::vector<uint8_t> _bytes;
    size_t _position = 0;
};

// Writes `count` bits of `value` over those at bit `position` of `bytes`.
void Overwrite(std::vector<uint8_t>& bytes, size_t position, uint32_t value, int count) {
    for (int i = count - 1; i >= 0; --i, ++position) {
        const auto mask = uint8_t(0x80 >> (position % 8));
        if ((value >> i) & 1)
            bytes[position / 8] |= mask;
        else
            bytes[position / 8] &= uint8_t(~mask);
    }
}

// A packet's NAL units again, each after a start code: those that `renumber` changes (given each unit's
// header of `headerBytes` and its payload without emulation prevention) written anew, the others as
// they were.
template <class Renumber>
std::vector<uint8_t> Rewritten(const std::vector<std::pair<const uint8_t*, size_t>>& units,
                               size_t headerBytes, Renumber renumber) {
    std::vector<uint8_t> out;
    for (auto [unit, length] : units) {
        std::vector<uint8_t> payload;
        if (length > headerBytes)
            payload = Unescape(unit + headerBytes, length - headerBytes);
        if (length > headerBytes && renumber(unit, payload)) {
            const std::vector<uint8_t> nal = Escape(std::vector<uint8_t>(unit, unit + headerBytes), payload);
            out.insert(out.end(), nal.begin(), nal.end());
        } else {
            out.insert(out.end(), {0, 0, 0, 1});
            out.insert(out.end(), unit, unit + length);
        }
    }
    return out;
}

class BitWriter {
public:
    void bit(uint32_t value) {
        if (_used == 0)
            bytes.push_back(0);
        if (value)
            bytes.back() |= uint8_t(0x80 >> _used);
        _used = (_used + 1) % 8;
    }
    void bits(uint32_t value, int count) {
        for (int i = count - 1; i >= 0; --i)
            bit((value >> i) & 1);
    }
    void ue(uint32_t value) {
        const uint64_t code = uint64_t(value) + 1;
        int length = 0;
        while ((code >> (length + 1)) != 0)
            ++length;
        bits(0, length);
        for (int i = length; i >= 0; --i)
            bit(uint32_t((code >> i) & 1));
    }
    void se(int32_t value) { ue(value > 0 ? uint32_t(2 * value - 1) : uint32_t(-2 * int64_t(value))); }
    // A one, then zeros to the end of the byte: rbsp_trailing_bits and byte_alignment alike.
    void align() {
        bit(1);
        while (_used != 0)
            bit(0);
    }
    bool aligned() const { return _used == 0; }

    std::vector<uint8_t> bytes;

private:
    int _used = 0;
};

Error Unsupported(const std::string& why) {
    return RecorderError(why);
}

// --- H.264 -------------------------------------------------------------------------------------------

// An H.264 skip picture is a P slice coded with CAVLC whose macroblocks are all skipped (ITU-T H.264
// 7.3.4: one mb_skip_run over the picture). A P_Skip macroblock predicts its motion from its neighbours,
// which here are all skipped with zero motion, so every one copies the reference picture unchanged.
class H264Skips final : public SkipPictures {
public:
    struct Sequence {
        bool valid = false;
        bool separatePlanes = false;
        int log2MaxFrameNum = 4;
        int pocType = 0;
        int log2MaxPocLsb = 4;
        uint32_t referenceFrames = 0;
        uint32_t macroblocks = 0;
    };
    // Where a slice header's numbers lie, in bits of its payload.
    struct Numbers {
        bool read = false;
        uint32_t frameNum = 0, pocLsb = 0;
        size_t frameNumAt = 0, pocLsbAt = 0;
    };

    static Result<std::unique_ptr<SkipPictures>> make(const uint8_t* extradata, size_t size,
                                                      bool lastPictureOnly) {
        auto made = std::unique_ptr<H264Skips>(new H264Skips());
        std::map<uint32_t, uint32_t> pictureSets; // id → its sequence's id
        for (auto [unit, length] : NalUnits(extradata, size)) {
            if (length < 2)
                continue;
            const int type = unit[0] & 0x1f;
            BitReader bits(Unescape(unit + 1, length - 1));
            if (type == 7) {
                Sequence sequence;
                const uint32_t id = ReadSequence(bits, sequence);
                if (bits.failed || id > 31)
                    return Unsupported("its sequence parameter set could not be read");
                if (!sequence.valid)
                    return Unsupported("it codes fields or orders pictures by picture order count type 1");
                made->_sequences[id] = sequence;
            } else if (type == 8) {
                const uint32_t id = bits.ue();
                const uint32_t sequence = bits.ue();
                if (bits.failed || id > 255)
                    return Unsupported("its picture parameter set could not be read");
                pictureSets[id] = sequence;
            }
        }
        if (pictureSets.empty() || !made->_sequences.contains(pictureSets.begin()->second))
            return Unsupported("its parameter sets are not in its global header");
        // The first id that the encoder leaves free, over the sequence of its first picture parameter set.
        uint32_t id = 0;
        while (pictureSets.contains(id))
            ++id;
        if (id > 255)
            return Unsupported("it uses every picture parameter set id");
        made->_sequenceId = pictureSets.begin()->second;
        made->_pictureSets = std::move(pictureSets);
        made->_ownId = id;
        const Sequence& sequence = made->_sequences[made->_sequenceId];
        if (sequence.separatePlanes)
            return Unsupported("it codes its colour planes apart");
        made->_restarts = !lastPictureOnly || sequence.referenceFrames > 1;

        // ITU-T H.264 7.3.2.2: CAVLC, one slice group, one reference, no weighted prediction, and the
        // deblocking filter under the slice's control.
        BitWriter w;
        w.ue(id);
        w.ue(made->_sequenceId);
        w.bit(0);                                      // entropy_coding_mode_flag
        w.bit(0);                                      // bottom_field_pic_order_in_frame_present_flag
        w.ue(0);                                       // num_slice_groups_minus1
        w.ue(0);                                       // num_ref_idx_l0_default_active_minus1
        w.ue(0);                                       // num_ref_idx_l1_default_active_minus1
        w.bit(0);                                      // weighted_pred_flag
        w.bits(0, 2);                                  // weighted_bipred_idc
        w.se(0);                                       // pic_init_qp_minus26
        w.se(0);                                       // pic_init_qs_minus26
        w.se(0);                                       // chroma_qp_index_offset
        w.bit(1);                                      // deblocking_filter_control_present_flag
        w.bit(0);                                      // constrained_intra_pred_flag
        w.bit(0);                                      // redundant_pic_cnt_present_flag
        w.align();                                     // rbsp_trailing_bits
        made->_parameterSet = Escape({0x68}, w.bytes); // nal_ref_idc 3, type 8
        return std::unique_ptr<SkipPictures>(std::move(made));
    }

    bool follow(const uint8_t* data, size_t size, std::vector<uint8_t>& renumbered) override {
        renumbered.clear();
        std::vector<std::pair<const uint8_t*, size_t>> units = NalUnits(data, size);
        for (auto [unit, length] : units)
            if (length > 0 && (unit[0] & 0x1f) == 5) // an IDR starts the numbering afresh
                _shift = 0;
        const Sequence& sequence = _sequences[_sequenceId];
        if (_shift > 0 && !_restarts) {
            // Skip pictures stand in for this picture's reference frame, the encoder's last picture: its
            // frame_num and picture order count go on from them.
            renumbered = Rewritten(units, 1, [&](const uint8_t* unit, std::vector<uint8_t>& payload) {
                const Numbers numbers = (unit[0] & 0x1f) == 1 ? Read(payload, 1) : Numbers{};
                if (!numbers.read)
                    return false;
                Overwrite(payload, numbers.frameNumAt,
                          (numbers.frameNum + _shift) % (1u << sequence.log2MaxFrameNum),
                          sequence.log2MaxFrameNum);
                if (sequence.pocType == 0)
                    Overwrite(payload, numbers.pocLsbAt,
                              (numbers.pocLsb + 2 * _shift) % (1u << sequence.log2MaxPocLsb),
                              sequence.log2MaxPocLsb);
                return true;
            });
            units = NalUnits(renumbered.data(), renumbered.size());
        }
        for (auto [unit, length] : units) {
            if (length < 2)
                continue;
            const int type = unit[0] & 0x1f;
            if (type != 1 && type != 5)
                continue;
            if ((unit[0] >> 5) == 0) // nal_ref_idc: not kept for reference
                return false;
            const Numbers numbers = Read(Unescape(unit + 1, std::min<size_t>(length - 1, 64)), type);
            if (!numbers.read)
                return false;
            _frameNum = numbers.frameNum;
            _pocLsb = numbers.pocLsb;
            return true;
        }
        return false;
    }

    std::vector<uint8_t> next() override {
        const Sequence& sequence = _sequences[_sequenceId];
        _frameNum = (_frameNum + 1) % (1u << sequence.log2MaxFrameNum);
        ++_shift;
        // Pictures of picture order count type 0 count two a frame, as the encoders do.
        _pocLsb = (_pocLsb + 2) % (1u << sequence.log2MaxPocLsb);
        // ITU-T H.264 7.3.3.
        BitWriter w;
        w.ue(0);      // first_mb_in_slice
        w.ue(5);      // slice_type: P, as every slice of the picture
        w.ue(_ownId); // pic_parameter_set_id
        w.bits(_frameNum, sequence.log2MaxFrameNum);
        if (sequence.pocType == 0)
            w.bits(_pocLsb, sequence.log2MaxPocLsb);
        w.bit(0);                   // num_ref_idx_active_override_flag
        w.bit(0);                   // ref_pic_list_modification_flag_l0
        w.bit(0);                   // adaptive_ref_pic_marking_mode_flag: a sliding window, as the encoder's
        w.se(0);                    // slice_qp_delta
        w.ue(1);                    // disable_deblocking_filter_idc
        w.ue(sequence.macroblocks); // mb_skip_run: the whole picture
        w.align();                  // rbsp_slice_trailing_bits
        return Escape({0x41}, w.bytes); // nal_ref_idc 2, type 1
    }

private:
    // The numbers of a slice of nal_unit_type `type` of a picture of the encoder's sequence, from its
    // header (ITU-T H.264 7.3.3).
    Numbers Read(const std::vector<uint8_t>& payload, int type) {
        // The numbers lie well within the first bytes.
        BitReader bits(std::vector<uint8_t>(payload.begin(),
                                            payload.begin() + std::min<ptrdiff_t>(64, std::ssize(payload))));
        bits.ue(); // first_mb_in_slice
        bits.ue(); // slice_type
        const auto set = _pictureSets.find(bits.ue());
        if (set == _pictureSets.end() || set->second != _sequenceId)
            return {};
        const Sequence& sequence = _sequences[_sequenceId];
        Numbers numbers;
        numbers.frameNumAt = bits.position();
        numbers.frameNum = bits.bits(sequence.log2MaxFrameNum);
        if (type == 5)
            bits.ue(); // idr_pic_id
        numbers.pocLsbAt = bits.position();
        numbers.pocLsb = sequence.pocType == 0 ? bits.bits(sequence.log2MaxPocLsb) : 0;
        numbers.read = !bits.failed;
        return numbers;
    }

    // ITU-T H.264 7.3.2.1.1, as far as the frame size; returns the id.
    static uint32_t ReadSequence(BitReader& bits, Sequence& sequence) {
        const uint32_t profile = bits.bits(8);
        bits.skip(16); // constraint flags, level_idc
        const uint32_t id = bits.ue();
        static constexpr std::array highProfiles{100u, 110u, 122u, 244u, 44u,  83u, 86u,
                                                 118u, 128u, 138u, 139u, 134u, 135u};
        if (std::find(highProfiles.begin(), highProfiles.end(), profile) != highProfiles.end()) {
            const uint32_t chroma = bits.ue();
            if (chroma == 3)
                sequence.separatePlanes = bits.bit();
            bits.ue();        // bit_depth_luma_minus8
            bits.ue();        // bit_depth_chroma_minus8
            bits.bit();       // qpprime_y_zero_transform_bypass_flag
            if (bits.bit()) { // seq_scaling_matrix_present_flag
                for (int i = 0; i < (chroma != 3 ? 8 : 12) && !bits.failed; ++i) {
                    if (!bits.bit())
                        continue;
                    int last = 8, next = 8;
                    for (int j = 0; j < (i < 6 ? 16 : 64) && !bits.failed; ++j) {
                        if (next != 0)
                            next = (last + bits.se() + 256) % 256;
                        last = next == 0 ? last : next;
                    }
                }
            }
        }
        sequence.log2MaxFrameNum = int(bits.ue()) + 4;
        sequence.pocType = int(bits.ue());
        if (sequence.pocType == 0)
            sequence.log2MaxPocLsb = int(bits.ue()) + 4;
        if (sequence.pocType == 1 || sequence.pocType > 2 || sequence.log2MaxFrameNum > 16 ||
            sequence.log2MaxPocLsb > 16)
            return id;
        sequence.referenceFrames = bits.ue();
        bits.bit(); // gaps_in_frame_num_value_allowed_flag
        const uint32_t width = bits.ue() + 1;
        const uint32_t height = bits.ue() + 1;
        if (!bits.bit()) // frame_mbs_only_flag
            return id;
        sequence.macroblocks = width * height;
        sequence.valid = true;
        return id;
    }

    H264Skips() = default;

    std::map<uint32_t, Sequence> _sequences;
    std::map<uint32_t, uint32_t> _pictureSets;
    uint32_t _sequenceId = 0;
    uint32_t _ownId = 0;
    uint32_t _frameNum = 0;
    uint32_t _pocLsb = 0;
};

// --- HEVC --------------------------------------------------------------------------------------------

// The arithmetic coder of CABAC (ITU-T H.265 9.3.4.3, written as the encoder of ITU-T H.264 9.3.4.2),
// enough for context-coded bins and the terminating bin.
class CabacWriter {
public:
    struct Context {
        uint8_t state = 0;
        uint8_t mps = 0;
    };

    // ITU-T H.265 9.3.2.2: a context's state from its initValue at the slice's QP.
    static Context Initialised(int initValue, int qp) {
        const int m = (initValue >> 4) * 5 - 45;
        const int n = ((initValue & 15) << 3) - 16;
        const int pre = std::clamp(((m * std::clamp(qp, 0, 51)) >> 4) + n, 1, 126);
        return pre <= 63 ? Context{uint8_t(63 - pre), 0} : Context{uint8_t(pre - 64), 1};
    }

    explicit CabacWriter(BitWriter& out) : _out(out) {}

    void decision(Context& context, int bin) {
        const uint32_t lps = RangeLps[context.state][(_range >> 6) & 3];
        _range -= lps;
        if (bin != context.mps) {
            _low += _range;
            _range = lps;
            if (context.state == 0)
                context.mps = uint8_t(1 - context.mps);
            context.state = TransitionLps[context.state];
        } else {
            context.state = uint8_t(std::min(context.state + 1, 62));
        }
        renormalise();
    }

    // A terminating bin; a 1 flushes the coder, whose last bit written is the rbsp_stop_one_bit.
    void terminate(int bin) {
        _range -= 2;
        if (!bin) {
            renormalise();
            return;
        }
        _low += _range;
        _range = 2;
        renormalise();
        put((_low >> 9) & 1);
        _out.bits(((_low >> 7) & 3) | 1, 2);
    }

private:
    void renormalise() {
        while (_range < 256) {
            if (_low < 256) {
                put(0);
            } else if (_low >= 512) {
                _low -= 512;
                put(1);
            } else {
                _low -= 256;
                ++_outstanding;
            }
            _range <<= 1;
            _low <<= 1;
        }
    }
    void put(uint32_t bit) {
        if (_first)
            _first = false;
        else
            _out.bit(bit);
        for (; _outstanding > 0; --_outstanding)
            _out.bit(1 - bit);
    }

    // ITU-T H.265 Table 9-52 (rangeTabLps, by pStateIdx and qRangeIdx) and Table 9-53 (transIdxLps).
    static constexpr uint8_t RangeLps[64][4] = {
        {128, 176, 208, 240}, {128, 167, 197, 227}, {128, 158, 187, 216}, {123, 150, 178, 205},
        {116, 142, 169, 195}, {111, 135, 160, 185}, {105, 128, 152, 175}, {100, 122, 144, 166},
        {95, 116, 137, 158},  {90, 110, 130, 150},  {85, 104, 123, 142},  {81, 99, 117, 135},
        {77, 94, 111, 128},   {73, 89, 105, 122},   {69, 85, 100, 116},   {66, 80, 95, 110},
        {62, 76, 90, 104},    {59, 72, 86, 99},     {56, 69, 81, 94},     {53, 65, 77, 89},
        {51, 62, 73, 85},     {48, 59, 69, 80},     {46, 56, 66, 76},     {43, 53, 63, 72},
        {41, 50, 59, 69},     {39, 48, 56, 65},     {37, 45, 54, 62},     {35, 43, 51, 59},
        {33, 41, 48, 56},     {32, 39, 46, 53},     {30, 37, 43, 50},     {29, 35, 41, 48},
        {27, 33, 39, 45},     {26, 31, 37, 43},     {24, 30, 35, 41},     {23, 28, 33, 39},
        {22, 27, 32, 37},     {21, 26, 30, 35},     {20, 24, 29, 33},     {19, 23, 27, 31},
        {18, 22, 26, 30},     {17, 21, 25, 28},     {16, 20, 23, 27},     {15, 19, 22, 25},
        {14, 18, 21, 24},     {14, 17, 20, 23},     {13, 16, 19, 22},     {12, 15, 18, 21},
        {12, 14, 17, 20},     {11, 14, 16, 19},     {11, 13, 15, 18},     {10, 12, 15, 17},
        {10, 12, 14, 16},     {9, 11, 13, 15},      {9, 11, 12, 14},      {8, 10, 12, 14},
        {8, 9, 11, 13},       {7, 9, 11, 12},       {7, 9, 10, 12},       {7, 8, 10, 11},
        {6, 8, 9, 11},        {6, 7, 9, 10},        {6, 7, 8, 9},         {2, 2, 2, 2}};
    static constexpr uint8_t TransitionLps[64] = {
        0,  0,  1,  2,  2,  4,  4,  5,  6,  7,  8,  9,  9,  11, 11, 12, 13, 13, 15, 15, 16, 16,
        18, 18, 19, 19, 21, 21, 22, 22, 23, 24, 24, 25, 26, 26, 27, 27, 28, 29, 29, 30, 30, 30,
        31, 32, 32, 33, 33, 33, 34, 34, 35, 35, 35, 36, 36, 36, 37, 37, 37, 38, 38, 63};

    BitWriter& _out;
    uint32_t _low = 0;
    uint32_t _range = 510;
    bool _first = true;
    int _outstanding = 0;
};

// An HEVC skip picture is a TRAIL_R P slice whose coding units are all skipped with one merge candidate:
// with no temporal candidate and neighbours that are all skipped with zero motion, every one takes zero
// motion from the picture before. Its reference picture set is written in its header (the one picture
// before it), so no set of the encoder's is needed.
class HevcSkips final : public SkipPictures {
public:
    struct RefSet {
        std::vector<int> deltas;
        std::vector<bool> used;
    };
    struct Sequence {
        bool valid = false;
        bool chroma = true; // ChromaArrayType != 0
        uint32_t width = 0, height = 0;
        int log2MaxPocLsb = 4;
        int log2MinCb = 3, log2Ctb = 4;
        bool sao = false;
        uint32_t shortTermSets = 0;
        std::vector<RefSet> sets;
        bool longTerm = false;
        uint32_t longTermSps = 0;
        bool temporalMvp = false;
        uint32_t maxDecPicBufferingMinus1 = 0;
        int addressBits = 0; // of slice_segment_address
    };
    struct PictureSet {
        uint32_t sequence = 0;
        bool dependentSlices = false;
        bool outputFlag = false;
        int extraBits = 0;
        uint32_t references = 1; // num_ref_idx_l0_default_active_minus1 + 1
    };
    // Where a slice header's picture order count lies, in bits of its payload, and whether the slice
    // refers to the picture before it only, and at most to the one before that.
    struct Numbers {
        bool read = false;
        uint32_t pocLsb = 0;
        size_t pocLsbAt = 0;
        bool lastOnly = false;
    };

    static Result<std::unique_ptr<SkipPictures>> make(const uint8_t* extradata, size_t size,
                                                      bool lastPictureOnly) {
        auto made = std::unique_ptr<HevcSkips>(new HevcSkips());
        for (auto [unit, length] : NalUnits(extradata, size)) {
            if (length < 3)
                continue;
            const int type = (unit[0] >> 1) & 0x3f;
            BitReader bits(Unescape(unit + 2, length - 2));
            if (type == 33) {
                Sequence sequence;
                const uint32_t id = ReadSequence(bits, sequence);
                if (bits.failed || id > 15)
                    return Unsupported("its sequence parameter set could not be read");
                if (!sequence.valid)
                    return Unsupported("it codes its colour planes apart");
                made->_sequences[id] = sequence;
            } else if (type == 34) {
                PictureSet set;
                const uint32_t id = bits.ue();
                set.sequence = bits.ue();
                set.dependentSlices = bits.bit();
                set.outputFlag = bits.bit();
                set.extraBits = int(bits.bits(3));
                bits.skip(2); // sign_data_hiding_enabled_flag, cabac_init_present_flag
                set.references = bits.ue() + 1;
                if (bits.failed || id > 63)
                    return Unsupported("its picture parameter set could not be read");
                made->_pictureSets[id] = set;
            }
        }
        if (made->_pictureSets.empty() ||
            !made->_sequences.contains(made->_pictureSets.begin()->second.sequence))
            return Unsupported("its parameter sets are not in its global header");
        uint32_t id = 0;
        while (made->_pictureSets.contains(id))
            ++id;
        if (id > 63)
            return Unsupported("it uses every picture parameter set id");
        made->_ownId = id;
        made->_sequenceId = made->_pictureSets.begin()->second.sequence;
        const Sequence& sequence = made->_sequences[made->_sequenceId];
        made->_restarts = !lastPictureOnly || sequence.longTerm || sequence.temporalMvp ||
                          made->_pictureSets.begin()->second.references > 1;

        // ITU-T H.265 7.3.2.3.1: one reference, no tiles, no wavefronts, and no loop filter.
        BitWriter w;
        w.ue(id);
        w.ue(made->_sequenceId);
        w.bit(0);     // dependent_slice_segments_enabled_flag
        w.bit(0);     // output_flag_present_flag
        w.bits(0, 3); // num_extra_slice_header_bits
        w.bit(0);     // sign_data_hiding_enabled_flag
        w.bit(0);     // cabac_init_present_flag
        w.ue(0);      // num_ref_idx_l0_default_active_minus1
        w.ue(0);      // num_ref_idx_l1_default_active_minus1
        w.se(0);      // init_qp_minus26
        w.bit(0);     // constrained_intra_pred_flag
        w.bit(0);     // transform_skip_enabled_flag
        w.bit(0);     // cu_qp_delta_enabled_flag
        w.se(0);      // pps_cb_qp_offset
        w.se(0);      // pps_cr_qp_offset
        w.bit(0);     // pps_slice_chroma_qp_offsets_present_flag
        w.bit(0);     // weighted_pred_flag
        w.bit(0);     // weighted_bipred_flag
        w.bit(0);     // transquant_bypass_enabled_flag
        w.bit(0);     // tiles_enabled_flag
        w.bit(0);     // entropy_coding_sync_enabled_flag
        w.bit(0);     // pps_loop_filter_across_slices_enabled_flag
        w.bit(1);     // deblocking_filter_control_present_flag
        w.bit(0);     // deblocking_filter_override_enabled_flag
        w.bit(1);     // pps_deblocking_filter_disabled_flag
        w.bit(0);     // pps_scaling_list_data_present_flag
        w.bit(0);     // lists_modification_present_flag
        w.ue(0);      // log2_parallel_merge_level_minus2
        w.bit(0);     // slice_segment_header_extension_present_flag
        w.bit(0);     // pps_extension_present_flag
        w.align();
        made->_parameterSet = Escape({34 << 1, 1}, w.bytes);
        made->_data = SliceData(made->_sequences[made->_sequenceId]);
        return std::unique_ptr<SkipPictures>(std::move(made));
    }

    bool follow(const uint8_t* data, size_t size, std::vector<uint8_t>& renumbered) override {
        renumbered.clear();
        std::vector<std::pair<const uint8_t*, size_t>> units = NalUnits(data, size);
        for (auto [unit, length] : units)
            if (length > 0 && IsIdr((unit[0] >> 1) & 0x3f)) // an IDR starts the count afresh
                _shift = 0;
        const Sequence& sequence = _sequences[_sequenceId];
        if (_shift > 0 && !_restarts) {
            // Skip pictures stand in for the only picture this one refers to, the encoder's last: its
            // picture order count goes on from them, and its reference picture set, relative to it, then
            // names the last skip picture.
            renumbered = Rewritten(units, 2, [&](const uint8_t* unit, std::vector<uint8_t>& payload) {
                const Numbers numbers = Read(payload, (unit[0] >> 1) & 0x3f);
                if (!numbers.read)
                    return false;
                Overwrite(payload, numbers.pocLsbAt,
                          (numbers.pocLsb + _shift) % (1u << sequence.log2MaxPocLsb), sequence.log2MaxPocLsb);
                // The encoder was taken to refer to its last picture only; one that refers to more cannot
                // be put right, but the encoder restarts after the next skip pictures.
                if (!numbers.lastOnly && !_restarts) {
                    Log("MovieRecorder: ",
                        "an HEVC picture after skip pictures refers to more than the picture "
                        "before; the encoder restarts after skip pictures from now on");
                    _restarts = true;
                }
                return true;
            });
            units = NalUnits(renumbered.data(), renumbered.size());
        }
        for (auto [unit, length] : units) {
            if (length < 3)
                continue;
            const int type = (unit[0] >> 1) & 0x3f;
            if (type > 21)
                continue;
            // A picture that the next may refer to: a reference picture (TRAIL_R and the like, or a
            // random access point) of the lowest sub-layer.
            const bool reference = (type <= 14 && type % 2 == 1) || type >= 16;
            if (!reference || (unit[1] & 7) != 1)
                return false;
            const Numbers numbers = Read(Unescape(unit + 2, std::min<size_t>(length - 2, 64)), type);
            if (!numbers.read && !IsIdr(type))
                return false;
            _pocLsb = IsIdr(type) ? 0 : numbers.pocLsb;
            _pictures = IsIdr(type) ? 1 : _pictures + 1;
            return true;
        }
        return false;
    }

    std::vector<uint8_t> next() override {
        const Sequence& sequence = _sequences[_sequenceId];
        _pocLsb = (_pocLsb + 1) % (1u << sequence.log2MaxPocLsb);
        ++_shift;
        // Where the encoder's pictures are renumbered, they name the picture two before them too (x265
        // does), which must then still be there: kept, though not referred to.
        const bool keepsTwo = !_restarts && _pictures >= 2 && sequence.maxDecPicBufferingMinus1 >= 2;
        ++_pictures;
        // ITU-T H.265 7.3.6.1.
        BitWriter w;
        w.bit(1);     // first_slice_segment_in_pic_flag
        w.ue(_ownId); // slice_pic_parameter_set_id
        w.ue(1);      // slice_type: P
        w.bits(_pocLsb, sequence.log2MaxPocLsb);
        w.bit(0); // short_term_ref_pic_set_sps_flag: the set follows
        if (sequence.shortTermSets > 0)
            w.bit(0);           // inter_ref_pic_set_prediction_flag
        w.ue(keepsTwo ? 2 : 1); // num_negative_pics
        w.ue(0);                // num_positive_pics
        w.ue(0);                // delta_poc_s0_minus1: the picture before
        w.bit(1);               // used_by_curr_pic_s0_flag
        if (keepsTwo) {
            w.ue(0);  // delta_poc_s0_minus1: the one before that
            w.bit(0); // used_by_curr_pic_s0_flag
        }
        if (sequence.longTerm) {
            if (sequence.longTermSps > 0)
                w.ue(0); // num_long_term_sps
            w.ue(0);     // num_long_term_pics
        }
        if (sequence.temporalMvp)
            w.bit(0); // slice_temporal_mvp_enabled_flag
        if (sequence.sao) {
            w.bit(0); // slice_sao_luma_flag
            if (sequence.chroma)
                w.bit(0); // slice_sao_chroma_flag
        }
        w.bit(0);  // num_ref_idx_active_override_flag
        w.ue(4);   // five_minus_max_num_merge_cand: one candidate, so no merge_idx
        w.se(0);   // slice_qp_delta
        w.align(); // byte_alignment
        w.bytes.insert(w.bytes.end(), _data.begin(), _data.end());
        return Escape({1 << 1, 1}, w.bytes); // TRAIL_R, temporal id 0
    }

private:
    HevcSkips() = default;

    static bool IsIdr(int type) { return type == 19 || type == 20; }

    // Where the picture order count of a slice segment of nal_unit_type `type` of the encoder's sequence
    // lies (ITU-T H.265 7.3.6.1); nothing for an IDR, a dependent slice segment or any other NAL unit.
    Numbers Read(const std::vector<uint8_t>& payload, int type) {
        if (type > 21 || IsIdr(type))
            return {};
        BitReader bits(std::vector<uint8_t>(payload.begin(),
                                            payload.begin() + std::min<ptrdiff_t>(64, std::ssize(payload))));
        const bool first = bits.bit(); // first_slice_segment_in_pic_flag
        if (type >= 16)
            bits.bit(); // no_output_of_prior_pics_flag
        const auto set = _pictureSets.find(bits.ue());
        if (set == _pictureSets.end() || set->second.sequence != _sequenceId)
            return {};
        const Sequence& sequence = _sequences[_sequenceId];
        if (!first) {
            if (set->second.dependentSlices && bits.bit()) // dependent_slice_segment_flag
                return {};
            bits.skip(sequence.addressBits); // slice_segment_address
        }
        bits.skip(set->second.extraBits);
        const uint32_t sliceType = bits.ue(); // 0 B, 1 P, 2 I
        if (set->second.outputFlag)
            bits.bit(); // pic_output_flag
        Numbers numbers;
        numbers.pocLsbAt = bits.position();
        numbers.pocLsb = bits.bits(sequence.log2MaxPocLsb);
        numbers.read = !bits.failed;
        // What it refers to: its reference picture set (its own or one of the sequence's) and how many of
        // the set it takes.
        RefSet references;
        if (!bits.bit()) { // short_term_ref_pic_set_sps_flag
            references = ReadShortTermSet(bits, sequence.sets, true);
        } else {
            int indexBits = 0;
            while ((1u << indexBits) < sequence.shortTermSets)
                ++indexBits;
            const uint32_t index = bits.bits(indexBits);
            if (index < sequence.sets.size())
                references = sequence.sets[index];
        }
        if (sequence.longTerm || sequence.temporalMvp)
            return numbers;
        if (sequence.sao)
            bits.skip(sequence.chroma ? 2 : 1);
        uint32_t active = set->second.references;
        if (sliceType != 2 && bits.bit()) // num_ref_idx_active_override_flag
            active = bits.ue() + 1;
        // The picture before it first (the nearest it refers to), and nothing older than the one before
        // that, which the skip pictures keep.
        bool before = false, older = false;
        for (size_t i = 0; i < references.deltas.size(); ++i) {
            before = before || (references.deltas[i] == -1 && references.used[i]);
            older = older || references.deltas[i] < -2 || references.deltas[i] > 0;
        }
        numbers.lastOnly =
            !bits.failed && (sliceType == 2 || (sliceType == 1 && active == 1 && before && !older));
        return numbers;
    }

    // ITU-T H.265 7.3.2.2.1, as far as sps_temporal_mvp_enabled_flag; returns the id.
    static uint32_t ReadSequence(BitReader& bits, Sequence& sequence) {
        bits.skip(4); // sps_video_parameter_set_id
        const int subLayers = int(bits.bits(3));
        bits.skip(1); // sps_temporal_id_nesting_flag
        // profile_tier_level( 1, sps_max_sub_layers_minus1 ) (7.3.3)
        bits.skip(88 + 8);
        std::vector<std::pair<bool, bool>> present;
        for (int i = 0; i < subLayers; ++i) {
            const bool profile = bits.bit();
            present.emplace_back(profile, bits.bit());
        }
        if (subLayers > 0)
            bits.skip(2 * (8 - subLayers));
        for (auto [profile, level] : present)
            bits.skip((profile ? 88 : 0) + (level ? 8 : 0));
        const uint32_t id = bits.ue();
        const uint32_t chromaFormat = bits.ue();
        const bool separatePlanes = chromaFormat == 3 && bits.bit();
        sequence.chroma = chromaFormat != 0 && !separatePlanes;
        sequence.width = bits.ue();
        sequence.height = bits.ue();
        if (bits.bit()) // conformance_window_flag
            for (int i = 0; i < 4; ++i)
                bits.ue();
        bits.ue(); // bit_depth_luma_minus8
        bits.ue(); // bit_depth_chroma_minus8
        sequence.log2MaxPocLsb = int(bits.ue()) + 4;
        const bool orderingForEach = bits.bit();
        for (int i = orderingForEach ? 0 : subLayers; i <= subLayers; ++i) {
            sequence.maxDecPicBufferingMinus1 = bits.ue(); // of the highest sub-layer, last
            bits.ue();                                     // sps_max_num_reorder_pics
            bits.ue();                                     // sps_max_latency_increase_plus1
        }
        sequence.log2MinCb = int(bits.ue()) + 3;
        sequence.log2Ctb = sequence.log2MinCb + int(bits.ue());
        for (int i = 0; i < 4; ++i)
            bits.ue();                // transform block sizes and hierarchy depths
        if (bits.bit() && bits.bit()) // scaling_list_enabled_flag, sps_scaling_list_data_present_flag
            SkipScalingLists(bits);
        bits.bit(); // amp_enabled_flag
        sequence.sao = bits.bit();
        if (bits.bit()) { // pcm_enabled_flag
            bits.skip(8);
            bits.ue();
            bits.ue();
            bits.bit();
        }
        sequence.shortTermSets = bits.ue();
        if (sequence.shortTermSets > 64)
            return id;
        for (uint32_t i = 0; i < sequence.shortTermSets && !bits.failed; ++i)
            sequence.sets.push_back(ReadShortTermSet(bits, sequence.sets, false));
        sequence.longTerm = bits.bit();
        if (sequence.longTerm) {
            sequence.longTermSps = bits.ue();
            for (uint32_t i = 0; i < sequence.longTermSps && i <= 32; ++i)
                bits.skip(sequence.log2MaxPocLsb + 1);
        }
        sequence.temporalMvp = bits.bit();
        sequence.valid = !separatePlanes && sequence.log2MaxPocLsb <= 16 && sequence.log2Ctb <= 6 &&
                         sequence.width > 0 && sequence.height > 0 && sequence.width <= 16888 &&
                         sequence.height <= 16888;
        if (sequence.valid) {
            const uint32_t ctbs = ((sequence.width + (1u << sequence.log2Ctb) - 1) >> sequence.log2Ctb) *
                                  ((sequence.height + (1u << sequence.log2Ctb) - 1) >> sequence.log2Ctb);
            while ((1u << sequence.addressBits) < ctbs)
                ++sequence.addressBits;
        }
        return id;
    }

    // ITU-T H.265 7.3.4.
    static void SkipScalingLists(BitReader& bits) {
        for (int size = 0; size < 4; ++size)
            for (int matrix = 0; matrix < 6; matrix += size == 3 ? 3 : 1) {
                if (!bits.bit()) { // scaling_list_pred_mode_flag
                    bits.ue();
                    continue;
                }
                if (size > 1)
                    bits.se();
                for (int i = 0; i < std::min(64, 1 << (4 + (size << 1))) && !bits.failed; ++i)
                    bits.se();
            }
    }

    // ITU-T H.265 7.3.7 and 7.4.8: a set of the sequence's, or of a slice header (after the sequence's
    // `sets`): the deltas of its pictures' order counts, and which the picture refers to.
    static RefSet ReadShortTermSet(BitReader& bits, const std::vector<RefSet>& sets, bool inSlice) {
        RefSet set;
        if (!sets.empty() && bits.bit()) {                     // inter_ref_pic_set_prediction_flag
            const uint32_t back = inSlice ? bits.ue() + 1 : 1; // delta_idx_minus1 + 1
            if (back > sets.size()) {
                bits.failed = true;
                return set;
            }
            const int sign = bits.bit() ? -1 : 1;
            const int deltaRps = sign * int(bits.ue() + 1);
            const RefSet& reference = sets[sets.size() - back];
            // Every picture of the set it is predicted from, then deltaRps itself, each kept or not.
            for (size_t j = 0; j <= reference.deltas.size() && !bits.failed; ++j) {
                const bool used = bits.bit();
                const bool kept = used || bits.bit();
                const int delta = j < reference.deltas.size() ? reference.deltas[j] + deltaRps : deltaRps;
                if (kept && delta != 0) {
                    set.deltas.push_back(delta);
                    set.used.push_back(used);
                }
            }
            return set;
        }
        const uint32_t negatives = bits.ue(), positives = bits.ue();
        if (negatives > 16 || positives > 16) {
            bits.failed = true;
            return set;
        }
        for (int sign : {-1, 1}) {
            int delta = 0;
            for (uint32_t i = 0; i < (sign < 0 ? negatives : positives); ++i) {
                delta += sign * int(bits.ue() + 1);
                set.deltas.push_back(delta);
                set.used.push_back(bits.bit());
            }
        }
        return set;
    }

    // The slice data, the same for every skip picture (7.3.8): each coding tree unit's quadtree split only
    // where it must be, at the picture's right and bottom edges, and every coding unit skipped.
    static std::vector<uint8_t> SliceData(const Sequence& sequence) {
        constexpr int Qp = 26; // init_qp_minus26 0, slice_qp_delta 0
        // initValue of initType 1 (a P slice without cabac_init_flag), ITU-T H.265 Tables 9-11 and 9-12.
        std::array<CabacWriter::Context, 3> split{}, skip{};
        for (int i = 0; i < 3; ++i) {
            split[size_t(i)] = CabacWriter::Initialised(std::array{107, 139, 126}[size_t(i)], Qp);
            skip[size_t(i)] = CabacWriter::Initialised(std::array{197, 185, 201}[size_t(i)], Qp);
        }
        const uint32_t width = sequence.width, height = sequence.height;
        const uint32_t minCb = 1u << sequence.log2MinCb, ctb = 1u << sequence.log2Ctb;
        // The quadtree depth of the coding unit over each minimum block, for the split flag's context.
        const uint32_t columns = (width + minCb - 1) / minCb, rows = (height + minCb - 1) / minCb;
        std::vector<uint8_t> depths(size_t(columns) * rows, 0);
        const auto depthAt = [&](uint32_t x, uint32_t y) {
            return depths[size_t(y / minCb) * columns + x / minCb];
        };

        BitWriter out;
        CabacWriter cabac(out);
        const auto quadtree = [&](auto& self, uint32_t x0, uint32_t y0, int log2Size, int depth) -> void {
            const uint32_t size = 1u << log2Size;
            bool splits = log2Size > sequence.log2MinCb;
            if (x0 + size <= width && y0 + size <= height && log2Size > sequence.log2MinCb) {
                const int increment =
                    (x0 > 0 && depthAt(x0 - 1, y0) > depth) + (y0 > 0 && depthAt(x0, y0 - 1) > depth);
                cabac.decision(split[size_t(increment)], 0);
                splits = false;
            }
            if (splits) {
                const uint32_t half = size / 2;
                for (uint32_t y = y0; y < y0 + size; y += half)
                    for (uint32_t x = x0; x < x0 + size; x += half)
                        if (x < width && y < height)
                            self(self, x, y, log2Size - 1, depth + 1);
                return;
            }
            for (uint32_t y = y0; y < std::min(y0 + size, height); y += minCb)
                for (uint32_t x = x0; x < std::min(x0 + size, width); x += minCb)
                    depths[size_t(y / minCb) * columns + x / minCb] = uint8_t(depth);
            // cu_skip_flag, whose context counts the skipped neighbours there are: all of them.
            cabac.decision(skip[size_t((x0 > 0) + (y0 > 0))], 1);
        };
        const uint32_t ctbColumns = (width + ctb - 1) / ctb, ctbRows = (height + ctb - 1) / ctb;
        for (uint32_t row = 0; row < ctbRows; ++row)
            for (uint32_t column = 0; column < ctbColumns; ++column) {
                quadtree(quadtree, column * ctb, row * ctb, sequence.log2Ctb, 0);
                cabac.terminate(row == ctbRows - 1 && column == ctbColumns - 1); // end_of_slice_segment_flag
            }
        // rbsp_slice_segment_trailing_bits: the flush wrote the stop bit.
        while (!out.aligned())
            out.bit(0);
        return out.bytes;
    }

    std::map<uint32_t, Sequence> _sequences;
    std::map<uint32_t, PictureSet> _pictureSets;
    uint32_t _sequenceId = 0;
    uint32_t _ownId = 0;
    uint32_t _pocLsb = 0;
    uint32_t _pictures = 0; // since the last IDR
    std::vector<uint8_t> _data;
};

} // namespace

Result<std::unique_ptr<SkipPictures>> SkipPictures::make(AVCodecID codec, const uint8_t* extradata,
                                                         size_t size, bool lastPictureOnly) {
    if (!extradata || size == 0)
        return Unsupported("it has no global header");
    switch (codec) {
    case AV_CODEC_ID_H264:
        return H264Skips::make(extradata, size, lastPictureOnly);
    case AV_CODEC_ID_HEVC:
        return HevcSkips::make(extradata, size, lastPictureOnly);
    default:
        return Unsupported("its codec has no skip pictures here");
    }
}

} // namespace quorva
