#include "core/movie/StandardMovie.h"

#include "core/movie/MovieWriter.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quorva {

namespace {

constexpr uint32_t Type(const char (&name)[5]) {
    return uint32_t(uint8_t(name[0])) << 24 | uint32_t(uint8_t(name[1])) << 16 |
           uint32_t(uint8_t(name[2])) << 8 | uint32_t(uint8_t(name[3]));
}

std::string TypeName(uint32_t type) {
    std::string name;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const char c = char((type >> shift) & 0xff);
        name += c >= 0x20 && c < 0x7f ? c : '?';
    }
    return "‘" + name + "’";
}

// A header or fragment larger than this was not made by a muxer: reading it would only exhaust memory.
constexpr uint64_t LargestBox = 256 << 20;

// Bits of a sample's flags (ISO/IEC 14496-12 8.8.3.1).
constexpr uint32_t NonSync = 0x10000;

// Flags of `tfhd` and `trun`.
constexpr uint32_t BaseDataOffset = 0x1, DescriptionIndex = 0x2, DefaultDuration = 0x8, DefaultSize = 0x10,
                   DefaultFlags = 0x20, DefaultBaseIsMoof = 0x20000;
constexpr uint32_t DataOffset = 0x1, FirstSampleFlags = 0x4, SampleDuration = 0x100, SampleSize = 0x200,
                   SampleFlags = 0x400, CompositionOffset = 0x800;

// Uncompressed QuickTime sound, whose samples in a standard movie are its frames (one per channel set),
// as QuickTime and FFmpeg write it: readers split its chunks themselves.
bool IsUncompressedSound(uint32_t format) {
    for (uint32_t type : {Type("lpcm"), Type("in24"), Type("in32"), Type("twos"), Type("sowt"), Type("raw "),
                          Type("fl32"), Type("fl64"), Type("NONE")})
        if (format == type)
            return true;
    return false;
}

// Reads big-endian fields from one box's bytes; a read past the end reads 0 and makes it not ok.
class Cursor {
public:
    Cursor(const uint8_t* data, size_t size) : _data(data), _size(size) {}

    bool ok() const { return _ok; }
    size_t left() const { return _size - _at; }
    const uint8_t* here() const { return _data + _at; }

    uint64_t read(size_t bytes) {
        if (!_ok || bytes > left()) {
            _ok = false;
            return 0;
        }
        uint64_t value = 0;
        for (size_t i = 0; i < bytes; ++i)
            value = value << 8 | _data[_at + i];
        _at += bytes;
        return value;
    }
    uint8_t u8() { return uint8_t(read(1)); }
    uint16_t u16() { return uint16_t(read(2)); }
    uint32_t u24() { return uint32_t(read(3)); }
    uint32_t u32() { return uint32_t(read(4)); }
    uint64_t u64() { return read(8); }
    void skip(size_t bytes) {
        if (!_ok || bytes > left())
            _ok = false;
        else
            _at += bytes;
    }

private:
    const uint8_t* _data;
    size_t _size;
    size_t _at = 0;
    bool _ok = true;
};

struct BoxHeader {
    uint32_t type = 0;
    uint64_t size = 0;       // header included; 0: the box runs to the end of what holds it
    uint32_t headerSize = 0; // 8, or 16 with a 64-bit size
};

enum class Decoded { Complete, Short, Bad };

// The header at `data`, of which `available` bytes can be read: Short when they do not hold all of it.
Decoded DecodeHeader(const uint8_t* data, uint64_t available, BoxHeader& box) {
    if (available < 8)
        return Decoded::Short;
    Cursor in(data, size_t(std::min<uint64_t>(available, 16)));
    const uint32_t size = in.u32();
    box.type = in.u32();
    box.headerSize = 8;
    box.size = size;
    if (size == 1) {
        if (available < 16)
            return Decoded::Short;
        box.size = in.u64();
        box.headerSize = 16;
    }
    return box.size != 0 && box.size < box.headerSize ? Decoded::Bad : Decoded::Complete;
}

struct Child {
    uint32_t type;
    const uint8_t* box; // header included
    size_t size;
    const uint8_t* payload;
    size_t payloadSize;
};

// Calls `each` with every box in `size` bytes at `data`, until it answers false; false when the boxes do
// not fill the bytes (a terminator of fewer than eight zero bytes, as old QuickTime writers leave, aside).
template <class Each>
bool ForEachBox(const uint8_t* data, size_t size, Each&& each) {
    size_t at = 0;
    while (at < size) {
        BoxHeader header;
        const Decoded decoded = DecodeHeader(data + at, size - at, header);
        if (decoded == Decoded::Short &&
            std::all_of(data + at, data + size, [](uint8_t b) { return b == 0; }))
            return true;
        if (decoded != Decoded::Complete)
            return false;
        const uint64_t boxSize = header.size == 0 ? size - at : header.size;
        if (boxSize > size - at)
            return false;
        const Child child{header.type, data + at, size_t(boxSize), data + at + header.headerSize,
                          size_t(boxSize - header.headerSize)};
        if (!each(child))
            return false;
        at += size_t(boxSize);
    }
    return true;
}

// `value` ticks of `from` a second in ticks of `to` a second, rounded up or down.
uint64_t Rescale(uint64_t value, uint64_t to, uint64_t from, bool up) {
    if (from == 0)
        return 0;
    const unsigned __int128 scaled = (unsigned __int128)value * to + (up ? from - 1 : 0);
    const unsigned __int128 result = scaled / from;
    return result > UINT64_MAX ? UINT64_MAX : uint64_t(result);
}

// All `size` bytes by pread() or pwrite(), through interruptions and short transfers; an end of the file
// before them is an error of input.
template <class Call, class Byte>
bool Transfer(Call call, int fd, uint64_t offset, Byte* data, size_t size) {
    while (size > 0) {
        const ssize_t n = call(fd, data, size, off_t(offset));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            if (n == 0)
                errno = EIO;
            return false;
        }
        data += n;
        offset += uint64_t(n);
        size -= size_t(n);
    }
    return true;
}

bool ReadAt(int fd, uint64_t offset, uint8_t* data, size_t size) {
    return Transfer(::pread, fd, offset, data, size);
}

bool WriteAt(int fd, uint64_t offset, const uint8_t* data, size_t size) {
    return Transfer(::pwrite, fd, offset, data, size);
}

// Writes boxes, big-endian; a box's size is filled in when it ends.
class BoxWriter {
public:
    void begin(uint32_t type) {
        _open.push_back(bytes.size());
        u32(0);
        u32(type);
    }
    void end() {
        const size_t start = _open.back();
        _open.pop_back();
        const uint64_t size = bytes.size() - start;
        tooLarge = tooLarge || size > UINT32_MAX;
        patch32(start, uint32_t(size));
    }
    void put(uint64_t value, int size) {
        for (int shift = 8 * (size - 1); shift >= 0; shift -= 8)
            bytes.push_back(uint8_t(value >> shift));
    }
    void u8(uint8_t value) { put(value, 1); }
    void u32(uint32_t value) { put(value, 4); }
    void u64(uint64_t value) { put(value, 8); }
    void patch32(size_t at, uint32_t value) {
        for (int i = 0; i < 4; ++i)
            bytes[at + size_t(i)] = uint8_t(value >> (24 - 8 * i));
    }
    void append(const uint8_t* data, size_t size) { bytes.insert(bytes.end(), data, data + size); }
    void copy(const Child& box) { append(box.box, box.size); }

    std::vector<uint8_t> bytes;
    bool tooLarge = false; // a box of 4 GiB or more: not one this writer makes

private:
    std::vector<size_t> _open;
};

struct Run {
    uint32_t count;
    uint32_t value;
};

void AddToRuns(std::vector<Run>& runs, uint32_t value) {
    if (runs.empty() || runs.back().value != value || runs.back().count == UINT32_MAX)
        runs.push_back({1, value});
    else
        ++runs.back().count;
}

} // namespace

struct Edit {
    uint64_t duration; // in the movie's time scale; 0 in a fragmented movie's header
    int64_t mediaTime; // -1: an empty edit
    uint32_t rate;
};

// One track: what its header says, and its sample table as the fragments add to it, each part in the
// form its box takes.
struct StandardMovieTrack {
    uint32_t id = 0;
    uint32_t timeScale = 0;
    uint32_t handler = 0;
    // Uncompressed sound: the bytes of a frame, which is one sample of the standard movie.
    uint32_t bytesPerFrame = 0;
    // The defaults of the movie's `trex` for this track.
    uint32_t description = 1, duration = 0, size = 0, flags = 0;
    bool hasEdits = false;
    std::vector<Edit> edits;

    uint64_t samples = 0;   // frames of uncompressed sound
    uint64_t decodeEnd = 0; // the sum of the durations
    std::vector<Run> durations;
    std::vector<Run> compositions; // as 32 bits, signed when signedCompositions
    bool signedCompositions = false;
    bool largeCompositions = false; // above INT32_MAX, so unsigned
    // Where the last sample to be shown ends, which reordered pictures put after the decoding's end.
    bool composed = false;
    int64_t presentationEnd = 0;
    int64_t lastComposition = 0;
    uint32_t firstSize = 0;
    bool sizesVary = false;
    std::vector<uint32_t> sizes; // once they vary
    bool allSync = true;
    std::vector<uint32_t> sync; // numbers from 1, once some sample is not sync
    struct Chunk {
        uint64_t offset;
        uint32_t samples;
        uint32_t description;
    };
    std::vector<Chunk> chunks;

    bool isTimecode() const { return handler == Type("tmcd"); }

    // `composition` is the offset's 32 bits, `shown` its value.
    void addSample(uint32_t sampleDuration, uint32_t sampleSize, bool isSync, uint32_t composition,
                   int64_t shown) {
        AddToRuns(durations, sampleDuration);
        AddToRuns(compositions, composition);
        composed = composed || composition != 0;
        lastComposition = shown;
        presentationEnd = std::max(presentationEnd, int64_t(decodeEnd) + shown + sampleDuration);
        if (samples == 0) {
            firstSize = sampleSize;
        } else if (!sizesVary && sampleSize != firstSize) {
            sizesVary = true;
            sizes.assign(size_t(samples), firstSize);
        }
        if (sizesVary)
            sizes.push_back(sampleSize);
        if (!isSync && allSync) {
            allSync = false;
            for (uint64_t i = 1; i <= samples; ++i)
                sync.push_back(uint32_t(i));
        }
        if (isSync && !allSync)
            sync.push_back(uint32_t(samples + 1));
        ++samples;
        decodeEnd += sampleDuration;
    }

    uint32_t lastDuration() const { return durations.empty() ? 0 : durations.back().value; }

    void setLastDuration(uint32_t value) {
        Run& last = durations.back();
        decodeEnd = decodeEnd - last.value + value;
        presentationEnd = std::max(presentationEnd, int64_t(decodeEnd) + lastComposition);
        if (last.count == 1) {
            last.value = value;
        } else {
            --last.count;
            durations.push_back({1, value});
        }
    }

    uint64_t shownEnd() const {
        return composed ? uint64_t(std::max<int64_t>(presentationEnd, 0)) : decodeEnd;
    }

    // The duration of an edit in the movie's time scale: a media edit that the fragmented header left
    // at 0 shows the media from its start time to the end.
    uint64_t editDuration(const Edit& edit, uint32_t movieTimeScale) const {
        if (edit.mediaTime < 0 || edit.duration != 0)
            return edit.duration;
        const uint64_t start = uint64_t(edit.mediaTime);
        return shownEnd() > start ? Rescale(shownEnd() - start, movieTimeScale, timeScale, true) : 0;
    }

    uint64_t editedDuration(uint32_t movieTimeScale) const {
        if (!hasEdits)
            return Rescale(shownEnd(), movieTimeScale, timeScale, true);
        uint64_t total = 0;
        for (const Edit& edit : edits)
            total += editDuration(edit, movieTimeScale);
        return total;
    }
};

namespace {

// The first sample description's format and, for uncompressed sound, the bytes of a frame.
bool ReadSampleDescription(const Child& stsd, StandardMovieTrack& track, std::string& why) {
    Cursor in(stsd.payload, stsd.payloadSize);
    in.skip(4);
    const uint32_t entries = in.u32();
    const uint32_t entrySize = in.u32();
    const uint32_t format = in.u32();
    if (!in.ok() || entries == 0 || entrySize < 8 || entrySize - 8 > in.left()) {
        why = "its sample description cannot be read";
        return false;
    }
    if (track.handler != Type("soun") || !IsUncompressedSound(format))
        return true;
    Cursor sound(in.here(), entrySize - 8);
    sound.skip(8); // reserved, data reference
    const uint16_t version = sound.u16();
    sound.skip(6); // revision, vendor
    const uint32_t channels = sound.u16();
    const uint32_t bits = sound.u16();
    sound.skip(8); // compression, packet size, rate
    if (version == 0) {
        track.bytesPerFrame = channels * bits / 8;
    } else if (version == 1) {
        sound.skip(8); // samples and bytes per packet
        track.bytesPerFrame = sound.u32();
    } else if (version == 2) {
        sound.skip(24); // size of the structure, rate, channels, a constant, bits, flags
        const uint32_t bytesPerPacket = sound.u32();
        track.bytesPerFrame = sound.u32() == 1 ? bytesPerPacket : 0;
    }
    if (!sound.ok() || track.bytesPerFrame == 0) {
        why = "its uncompressed sound has no frame size";
        return false;
    }
    return true;
}

bool ReadEdits(const Child& elst, StandardMovieTrack& track) {
    Cursor in(elst.payload, elst.payloadSize);
    const uint8_t version = in.u8();
    in.skip(3);
    const uint32_t count = in.u32();
    if (version > 1 || count > in.left() / 12)
        return false;
    track.hasEdits = true;
    for (uint32_t i = 0; i < count && in.ok(); ++i) {
        Edit edit;
        edit.duration = version == 1 ? in.u64() : in.u32();
        edit.mediaTime = version == 1 ? int64_t(in.u64()) : int32_t(in.u32());
        edit.rate = in.u32();
        track.edits.push_back(edit);
    }
    return in.ok();
}

// A `mvhd`, `tkhd` or `mdhd` (version 0 or 1): `middle` bytes lie between its times and its duration.
bool ReadTimedHeader(const Child& box, size_t middle, uint32_t* timeScale) {
    Cursor in(box.payload, box.payloadSize);
    const uint8_t version = in.u8();
    in.skip(3 + (version == 1 ? 16 : 8));
    if (timeScale) {
        Cursor scale(in.here(), in.left());
        *timeScale = scale.u32();
        if (*timeScale == 0)
            return false;
    }
    in.skip(middle + (version == 1 ? 8 : 4));
    return version <= 1 && in.ok();
}

void WriteTimedHeader(BoxWriter& out, const Child& box, size_t middle, uint64_t duration) {
    Cursor in(box.payload, box.payloadSize);
    const uint8_t version = in.u8();
    const uint32_t flags = in.u24();
    const int timeSize = version == 1 ? 8 : 4;
    const uint64_t created = in.read(size_t(timeSize));
    const uint64_t modified = in.read(size_t(timeSize));
    const uint8_t* between = in.here();
    in.skip(middle + size_t(timeSize));
    // A duration beyond 32 bits needs the 64-bit form, which widens the times too.
    const bool wide = version == 1 || duration > UINT32_MAX;
    out.begin(box.type);
    out.u8(wide ? 1 : 0);
    out.put(flags, 3);
    out.put(created, wide ? 8 : 4);
    out.put(modified, wide ? 8 : 4);
    out.append(between, middle);
    out.put(duration, wide ? 8 : 4);
    out.append(in.here(), in.left());
    out.end();
}

enum class Found { Whole, NotYet, Bad, Unreadable };

// The header of the top-level box at `at`, once the first `fileEnd` bytes of the file hold all of the box.
Found FindBox(int fd, int64_t at, int64_t fileEnd, BoxHeader& box) {
    if (fileEnd - at < 8)
        return Found::NotYet;
    uint8_t bytes[16];
    const size_t available = size_t(std::min<int64_t>(fileEnd - at, 16));
    if (!ReadAt(fd, uint64_t(at), bytes, available))
        return Found::Unreadable;
    const Decoded decoded = DecodeHeader(bytes, available, box);
    // A box that runs to the end of the file has no end while the file grows.
    if (decoded == Decoded::Bad || (decoded == Decoded::Complete && box.size == 0))
        return Found::Bad;
    return decoded == Decoded::Short || box.size > uint64_t(fileEnd - at) ? Found::NotYet : Found::Whole;
}

// The bytes inside a whole box held in memory (its header already checked).
Child Whole(const std::vector<uint8_t>& box) {
    BoxHeader header;
    DecodeHeader(box.data(), box.size(), header);
    return {header.type, box.data(), box.size(), box.data() + header.headerSize,
            box.size() - header.headerSize};
}

struct TrackDefaults {
    uint32_t id, description, duration, size, flags;
};

// One `trak` of the fragmented header: what the fragments and the standard header need of it.
bool ReadTrack(const Child& trak, StandardMovieTrack& t, bool& samplesInHeader, std::string& why) {
    bool headed = false, described = false;
    const bool read = ForEachBox(trak.payload, trak.payloadSize, [&](const Child& part) {
        if (part.type == Type("tkhd")) {
            Cursor in(part.payload, part.payloadSize);
            const uint8_t version = in.u8();
            in.skip(3 + (version == 1 ? 16 : 8));
            t.id = in.u32();
            headed = ReadTimedHeader(part, 8, nullptr) && t.id != 0;
            return headed;
        }
        if (part.type == Type("edts"))
            return ForEachBox(part.payload, part.payloadSize, [&](const Child& edit) {
                return edit.type != Type("elst") || ReadEdits(edit, t);
            });
        if (part.type != Type("mdia"))
            return true;
        return ForEachBox(part.payload, part.payloadSize, [&](const Child& media) {
            if (media.type == Type("mdhd"))
                return ReadTimedHeader(media, 4, &t.timeScale);
            if (media.type == Type("hdlr")) {
                Cursor in(media.payload, media.payloadSize);
                in.skip(8);
                t.handler = in.u32();
                return in.ok();
            }
            if (media.type != Type("minf"))
                return true;
            return ForEachBox(media.payload, media.payloadSize, [&](const Child& information) {
                if (information.type != Type("stbl"))
                    return true;
                return ForEachBox(information.payload, information.payloadSize, [&](const Child& table) {
                    if (table.type == Type("stsd")) {
                        described = ReadSampleDescription(table, t, why);
                        return described;
                    }
                    if (table.type == Type("stsz") || table.type == Type("stz2")) {
                        Cursor in(table.payload, table.payloadSize);
                        in.skip(8);
                        samplesInHeader = samplesInHeader || in.u32() != 0 || !in.ok();
                    }
                    return true;
                });
            });
        });
    });
    if (read && headed && described && t.timeScale != 0)
        return true;
    if (why.empty())
        why = "a track's header cannot be read";
    return false;
}

StandardMovieTrack* FindTrack(std::vector<std::unique_ptr<StandardMovieTrack>>& tracks, uint32_t id) {
    for (auto& track : tracks)
        if (track->id == id)
            return track.get();
    return nullptr;
}

// Where the data of a movie fragment's track fragments lie.
struct FragmentPlace {
    uint64_t moof;       // the fragment's first byte
    uint64_t dataEnd;    // the end of the data of the track fragment before
    bool first;          // no track fragment before in this fragment
    uint64_t mediaStart; // no sample may lie before (the end of the fragmented header)
    uint64_t fileEnd;    // nor after
};

bool ReadTrackFragment(const Child& traf, std::vector<std::unique_ptr<StandardMovieTrack>>& tracks,
                       FragmentPlace& place, std::string& why) {
    StandardMovieTrack* track = nullptr;
    uint64_t base = 0, next = 0;
    uint32_t description = 0, duration = 0, size = 0, flags = 0;
    return ForEachBox(traf.payload, traf.payloadSize, [&](const Child& box) {
        Cursor in(box.payload, box.payloadSize);
        const uint8_t version = in.u8();
        const uint32_t boxFlags = in.u24();
        if (!track && box.type != Type("tfhd")) {
            why = "a track fragment does not begin with its header";
            return false;
        }
        if (box.type == Type("tfhd")) {
            const uint32_t id = in.u32();
            track = FindTrack(tracks, id);
            if (!track) {
                why = "a fragment has a track " + std::to_string(id) + " that the header does not";
                return false;
            }
            // Without an offset of its own, the data of a track fragment begins at its movie fragment, or
            // where the data of the track fragment before it ended.
            base = boxFlags & BaseDataOffset                       ? in.u64()
                   : (boxFlags & DefaultBaseIsMoof) || place.first ? place.moof
                                                                   : place.dataEnd;
            description = boxFlags & DescriptionIndex ? in.u32() : track->description;
            duration = boxFlags & DefaultDuration ? in.u32() : track->duration;
            size = boxFlags & DefaultSize ? in.u32() : track->size;
            flags = boxFlags & DefaultFlags ? in.u32() : track->flags;
            next = base;
            place.dataEnd = base;
            place.first = false;
            if (!in.ok())
                why = "a track fragment's header cannot be read";
            return in.ok();
        }
        if (box.type == Type("tfdt")) {
            const uint64_t time = version == 1 ? in.u64() : in.u32();
            if (!in.ok() || time == track->decodeEnd)
                return in.ok();
            // A fragment that starts later than the track's samples end: the last one lasts until then, as
            // a player of the fragments shows it.
            const uint64_t stretched = time - track->decodeEnd + track->lastDuration();
            if (time < track->decodeEnd || track->samples == 0 || track->bytesPerFrame != 0 ||
                stretched > UINT32_MAX) {
                why = "a fragment of track " + std::to_string(track->id) + " does not follow the one before";
                return false;
            }
            track->setLastDuration(uint32_t(stretched));
            return true;
        }
        if (box.type == Type("saiz") || box.type == Type("saio") || box.type == Type("senc")) {
            why = "it is encrypted";
            return false;
        }
        if (box.type != Type("trun"))
            return true; // sample groups and dependencies add nothing a player needs

        const uint32_t count = in.u32();
        const int64_t offset = boxFlags & DataOffset ? int32_t(in.u32()) : 0;
        const uint64_t start = boxFlags & DataOffset ? base + uint64_t(offset) : next;
        const bool hasFirstFlags = boxFlags & FirstSampleFlags;
        const uint32_t firstFlags = hasFirstFlags ? in.u32() : 0;
        const size_t fieldBytes = 4 * size_t(std::popcount(boxFlags & 0xf00));
        const uint64_t room = place.fileEnd > start ? place.fileEnd - start : 0;
        if (!in.ok() || (fieldBytes > 0 && count > in.left() / fieldBytes) ||
            (fieldBytes == 0 && count > room / std::max<uint32_t>(size, 1)) ||
            (offset < 0 && uint64_t(-offset) > base) || count > UINT32_MAX - track->samples) {
            why = "a track run cannot be read";
            return false;
        }
        uint64_t bytes = 0, frames = 0;
        for (uint32_t i = 0; i < count; ++i) {
            const uint32_t sampleDuration = boxFlags & SampleDuration ? in.u32() : duration;
            const uint32_t sampleSize = boxFlags & SampleSize ? in.u32() : size;
            const uint32_t sampleFlags = boxFlags & SampleFlags    ? in.u32()
                                         : i == 0 && hasFirstFlags ? firstFlags
                                                                   : flags;
            const uint32_t composition = boxFlags & CompositionOffset ? in.u32() : 0;
            bytes += sampleSize;
            if (track->bytesPerFrame != 0) {
                // Sound whose samples are its frames in the standard movie: the fragment's samples must
                // hold whole frames, one a tick.
                if (uint64_t(sampleDuration) * track->bytesPerFrame != sampleSize) {
                    why = "a sample of uncompressed sound is not whole frames";
                    return false;
                }
                frames += sampleDuration;
                continue;
            }
            if (version == 1 && int32_t(composition) < 0)
                track->signedCompositions = true;
            if (version == 0 && composition > uint32_t(INT32_MAX))
                track->largeCompositions = true;
            track->addSample(sampleDuration, sampleSize, !(sampleFlags & NonSync), composition,
                             version == 1 ? int64_t(int32_t(composition)) : int64_t(composition));
        }
        const uint32_t chunkSamples = track->bytesPerFrame != 0 ? uint32_t(frames) : count;
        if (track->bytesPerFrame != 0) {
            if (frames > UINT32_MAX - track->samples) {
                why = "a sound track has too many frames";
                return false;
            }
            track->samples += frames;
            track->decodeEnd += frames;
        }
        if (track->signedCompositions && track->largeCompositions) {
            why = "a track's composition offsets are both negative and beyond 31 bits";
            return false;
        }
        if (start < place.mediaStart || start > place.fileEnd || bytes > room) {
            why = "a track run's data lies outside the file's fragments";
            return false;
        }
        if (chunkSamples > 0)
            track->chunks.push_back({start, chunkSamples, description});
        next = start + bytes;
        place.dataEnd = next;
        return true;
    });
}

template <class Each>
void Rebuild(BoxWriter& out, const Child& box, Each&& each) {
    out.begin(box.type);
    ForEachBox(box.payload, box.payloadSize, [&](const Child& child) {
        each(child);
        return true;
    });
    out.end();
}

void WriteEdits(BoxWriter& out, const StandardMovieTrack& t, uint32_t movieTimeScale) {
    bool wide = false;
    for (const Edit& edit : t.edits)
        wide = wide || t.editDuration(edit, movieTimeScale) > UINT32_MAX || edit.mediaTime > INT32_MAX;
    out.begin(Type("elst"));
    out.u32(wide ? 0x01000000 : 0);
    out.u32(uint32_t(t.edits.size()));
    for (const Edit& edit : t.edits) {
        out.put(t.editDuration(edit, movieTimeScale), wide ? 8 : 4);
        out.put(uint64_t(edit.mediaTime), wide ? 8 : 4);
        out.u32(edit.rate);
    }
    out.end();
}

void WriteSampleTables(BoxWriter& out, const StandardMovieTrack& t) {
    const bool frames = t.bytesPerFrame != 0;
    out.begin(Type("stts"));
    out.u32(0);
    if (frames) {
        out.u32(t.samples ? 1 : 0);
        if (t.samples) {
            out.u32(uint32_t(t.samples));
            out.u32(1);
        }
    } else {
        out.u32(uint32_t(t.durations.size()));
        for (const Run& run : t.durations) {
            out.u32(run.count);
            out.u32(run.value);
        }
    }
    out.end();

    const bool composed = std::any_of(t.compositions.begin(), t.compositions.end(),
                                      [](const Run& run) { return run.value != 0; });
    if (!frames && composed) {
        out.begin(Type("ctts"));
        out.u32(t.signedCompositions ? 0x01000000 : 0);
        out.u32(uint32_t(t.compositions.size()));
        for (const Run& run : t.compositions) {
            out.u32(run.count);
            out.u32(run.value);
        }
        out.end();
    }

    if (!frames && !t.allSync) {
        out.begin(Type("stss"));
        out.u32(0);
        out.u32(uint32_t(t.sync.size()));
        for (uint32_t number : t.sync)
            out.u32(number);
        out.end();
    }

    // Chunks in a row with as many samples of the same description share an entry.
    out.begin(Type("stsc"));
    out.u32(0);
    const size_t countAt = out.bytes.size();
    out.u32(0);
    uint32_t entries = 0;
    for (size_t i = 0; i < t.chunks.size(); ++i) {
        const auto& chunk = t.chunks[i];
        if (i > 0 && chunk.samples == t.chunks[i - 1].samples &&
            chunk.description == t.chunks[i - 1].description)
            continue;
        out.u32(uint32_t(i + 1));
        out.u32(chunk.samples);
        out.u32(chunk.description);
        ++entries;
    }
    out.patch32(countAt, entries);
    out.end();

    out.begin(Type("stsz"));
    out.u32(0);
    out.u32(frames ? t.bytesPerFrame : t.sizesVary || t.samples == 0 ? 0 : t.firstSize);
    out.u32(uint32_t(t.samples));
    if (!frames && t.sizesVary)
        for (uint32_t size : t.sizes)
            out.u32(size);
    out.end();

    const bool wide = std::any_of(t.chunks.begin(), t.chunks.end(),
                                  [](const auto& chunk) { return chunk.offset > UINT32_MAX; });
    out.begin(Type(wide ? "co64" : "stco"));
    out.u32(0);
    out.u32(uint32_t(t.chunks.size()));
    for (const auto& chunk : t.chunks)
        out.put(chunk.offset, wide ? 8 : 4);
    out.end();
}

// The tables that the fragmented header holds empty and the standard one fills; those that count on
// samples without saying how many (dependencies, shadow sync, composition shift) are left out.
bool IsSampleTable(uint32_t type) {
    for (uint32_t table : {Type("stts"), Type("ctts"), Type("cslg"), Type("stss"), Type("stps"), Type("sdtp"),
                           Type("stsc"), Type("stsz"), Type("stz2"), Type("stco"), Type("co64")})
        if (type == table)
            return true;
    return false;
}

void WriteTrack(BoxWriter& out, const Child& trak, const StandardMovieTrack& t, uint32_t movieTimeScale) {
    Rebuild(out, trak, [&](const Child& part) {
        if (part.type == Type("tkhd"))
            return WriteTimedHeader(out, part, 8, t.editedDuration(movieTimeScale));
        if (part.type == Type("edts"))
            return Rebuild(out, part, [&](const Child& edit) {
                if (edit.type == Type("elst"))
                    WriteEdits(out, t, movieTimeScale);
                else
                    out.copy(edit);
            });
        if (part.type != Type("mdia"))
            return out.copy(part);
        Rebuild(out, part, [&](const Child& media) {
            if (media.type == Type("mdhd"))
                return WriteTimedHeader(out, media, 4, t.decodeEnd);
            if (media.type != Type("minf"))
                return out.copy(media);
            Rebuild(out, media, [&](const Child& information) {
                if (information.type != Type("stbl"))
                    return out.copy(information);
                Rebuild(out, information, [&](const Child& table) {
                    if (IsSampleTable(table.type))
                        return;
                    out.copy(table);
                    if (table.type == Type("stsd"))
                        WriteSampleTables(out, t);
                });
            });
        });
    });
}

} // namespace

StandardMovie::StandardMovie(int fd) : _fd(fd) {}

StandardMovie::~StandardMovie() = default;

Result<> StandardMovie::fail(std::string why) {
    if (!_failure)
        _failure = RecorderError("The movie cannot be made standard: " + why);
    return *_failure;
}

Result<> StandardMovie::follow(int64_t fileEnd) {
    if (_failure)
        return *_failure;
    while (!_indexed) {
        BoxHeader box, after;
        const Found found = FindBox(_fd, _position, fileEnd, box);
        // A fragment is read once the box after it, its media data, is whole too.
        const Found next = found == Found::Whole && box.type == Type("moof")
                               ? FindBox(_fd, _position + int64_t(box.size), fileEnd, after)
                               : Found::Whole;
        if (found == Found::NotYet || next == Found::NotYet)
            return {};
        if (found == Found::Unreadable || next == Found::Unreadable)
            return fail(std::string("the file cannot be read: ") + std::strerror(errno));
        if (found == Found::Bad)
            return fail("a box at " + std::to_string(_position) + " has no size it can have");
        const uint32_t type = box.type;
        if (type == Type("moov") || type == Type("moof")) {
            if (box.size > LargestBox)
                return fail("its " + TypeName(type) + " at " + std::to_string(_position) + " is too large");
            if ((type == Type("moov")) == (_headerOffset >= 0))
                return fail(type == Type("moov") ? "it has a second header before its fragments' index"
                                                 : "a fragment comes before the header");
            _buffer.resize(size_t(box.size));
            if (!ReadAt(_fd, uint64_t(_position), _buffer.data(), _buffer.size()))
                return fail(std::string("the file cannot be read: ") + std::strerror(errno));
            if (type == Type("moov")) {
                _headerOffset = _position;
                Result<> read = readHeader();
                if (!read)
                    return read;
            } else {
                Result<> read = readFragment(uint64_t(_position), uint64_t(fileEnd));
                if (!read)
                    return read;
                ++_fragments;
            }
        } else if (type == Type("mfra")) {
            if (_headerOffset < 0)
                return fail("its fragments' index comes before the header");
            _indexed = true;
        } else if (type != Type("ftyp") && type != Type("mdat") && type != Type("free") &&
                   type != Type("skip") && type != Type("wide") && type != Type("uuid") &&
                   type != Type("sidx") && type != Type("styp") && type != Type("prft")) {
            return fail("it holds a box " + TypeName(type) + " at " + std::to_string(_position));
        }
        _position += int64_t(box.size);
    }
    return {};
}

Result<> StandardMovie::readHeader() {
    const Child moov = Whole(_buffer);
    std::string why;
    bool fragmented = false, timed = false, samplesInHeader = false;
    std::vector<TrackDefaults> defaults;
    const bool read = ForEachBox(moov.payload, moov.payloadSize, [&](const Child& box) {
        if (box.type == Type("mvhd")) {
            timed = ReadTimedHeader(box, 4, &_movieTimeScale);
            return timed;
        }
        if (box.type == Type("mvex")) {
            fragmented = true;
            return ForEachBox(box.payload, box.payloadSize, [&](const Child& extends) {
                if (extends.type != Type("trex"))
                    return true;
                Cursor in(extends.payload, extends.payloadSize);
                in.skip(4);
                defaults.push_back({in.u32(), in.u32(), in.u32(), in.u32(), in.u32()});
                return in.ok();
            });
        }
        if (box.type != Type("trak"))
            return true;
        auto track = std::make_unique<StandardMovieTrack>();
        if (!ReadTrack(box, *track, samplesInHeader, why))
            return false;
        if (FindTrack(_tracks, track->id)) {
            why = "two tracks have the number " + std::to_string(track->id);
            return false;
        }
        _tracks.push_back(std::move(track));
        return true;
    });
    if (!read || !timed)
        return fail(why.empty() ? "its header cannot be read" : why);
    if (!fragmented)
        return fail("it is not fragmented");
    // Samples in the header as well as in fragments: not what a fragmenting muxer writes.
    if (samplesInHeader)
        return fail("its header holds samples");
    for (const TrackDefaults& d : defaults)
        if (StandardMovieTrack* track = FindTrack(_tracks, d.id)) {
            track->description = d.description;
            track->duration = d.duration;
            track->size = d.size;
            track->flags = d.flags;
        }
    _header = _buffer;
    return {};
}

Result<> StandardMovie::readFragment(uint64_t offset, uint64_t fileEnd) {
    const Child moof = Whole(_buffer);
    std::string why;
    FragmentPlace place{offset, offset, true, uint64_t(_headerOffset) + _header.size(), fileEnd};
    const bool read = ForEachBox(moof.payload, moof.payloadSize, [&](const Child& box) {
        if (box.type == Type("pssh")) {
            why = "it is encrypted";
            return false;
        }
        return box.type != Type("traf") || ReadTrackFragment(box, _tracks, place, why);
    });
    if (!read)
        return fail((why.empty() ? "a fragment cannot be read" : why) + " (the fragment at " +
                    std::to_string(offset) + ")");
    return {};
}

Result<std::vector<uint8_t>> StandardMovie::standardHeader() {
    uint64_t movieDuration = 0;
    for (const auto& track : _tracks)
        if (!track->isTimecode())
            movieDuration = std::max(movieDuration, track->editedDuration(_movieTimeScale));
    // A timecode track's one sample, in the first fragment, lasts a moment there; in a standard movie it
    // lasts as long as the movie, as editors expect it to.
    for (auto& track : _tracks) {
        if (!track->isTimecode() || track->samples == 0)
            continue;
        uint64_t lead = 0;
        int64_t mediaStart = 0;
        for (const Edit& edit : track->edits) {
            if (edit.mediaTime >= 0) {
                mediaStart = edit.mediaTime;
                break;
            }
            lead += edit.duration;
        }
        const uint64_t end = uint64_t(mediaStart) + Rescale(movieDuration > lead ? movieDuration - lead : 0,
                                                            track->timeScale, _movieTimeScale, false);
        const uint64_t before = track->decodeEnd - track->lastDuration();
        // One sample lasts at most 2³² - 1 ticks (19 hours at 60000 a second): beyond, the timecode
        // still starts right, and lasts that long.
        if (end > before)
            track->setLastDuration(uint32_t(std::min<uint64_t>(end - before, UINT32_MAX)));
    }
    for (const auto& track : _tracks)
        movieDuration = std::max(movieDuration, track->editedDuration(_movieTimeScale));

    BoxWriter out;
    size_t next = 0;
    Rebuild(out, Whole(_header), [&](const Child& box) {
        if (box.type == Type("mvhd"))
            WriteTimedHeader(out, box, 4, movieDuration);
        else if (box.type == Type("trak"))
            WriteTrack(out, box, *_tracks[next++], _movieTimeScale);
        else if (box.type != Type("mvex"))
            out.copy(box);
    });
    if (out.tooLarge)
        return fail("its sample tables do not fit one header").error();
    return std::move(out.bytes);
}

Result<> StandardMovie::appendStandardHeader() {
    if (_failure)
        return *_failure;
    if (!_indexed)
        return RecorderError("The movie cannot be made standard before its fragments' index is read");
    Result<std::vector<uint8_t>> header = standardHeader();
    if (!header)
        return header.error();
    const std::vector<uint8_t>& bytes = header.value();
    // The new header goes right after the index, over whatever a finish cut short left there.
    const uint64_t at = uint64_t(_position);
    if (!WriteAt(_fd, at, bytes.data(), bytes.size()) || ::ftruncate(_fd, off_t(at + bytes.size())) != 0 ||
        ::fsync(_fd) != 0) {
        const std::string reason = std::strerror(errno);
        // Part of a header after the index would only puzzle a reader.
        [[maybe_unused]] const int cut = ::ftruncate(_fd, off_t(at));
        return fail("the new header cannot be written: " + reason);
    }
    _standardOffset = int64_t(at);
    return {};
}

Result<> StandardMovie::hideFragments() {
    if (_failure)
        return *_failure;
    if (_standardOffset < 0)
        return RecorderError("The fragments cannot be hidden before the standard header is written");
    BoxWriter out;
    out.u32(1);
    out.u32(Type("mdat"));
    out.u64(uint64_t(_standardOffset - _headerOffset));
    if (!WriteAt(_fd, uint64_t(_headerOffset), out.bytes.data(), out.bytes.size()) || ::fsync(_fd) != 0)
        return fail(std::string("the fragments cannot be hidden: ") + std::strerror(errno));
    return {};
}

Result<> MakeStandardMovie(const std::filesystem::path& path) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return RecorderError("The movie cannot be made standard: it cannot be opened: " +
                             std::string(std::strerror(errno)));
    struct stat status;
    Result<> result =
        ::fstat(fd, &status) == 0
            ? Result<>()
            : RecorderError("The movie cannot be made standard: " + std::string(std::strerror(errno)));
    StandardMovie movie(fd);
    if (result)
        result = movie.follow(int64_t(status.st_size));
    if (result)
        result = movie.appendStandardHeader();
    if (result)
        result = movie.hideFragments();
    ::close(fd);
    return result;
}

} // namespace quorva
