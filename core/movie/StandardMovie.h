#pragma once

#include "platform/Error.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quorva {

struct StandardMovieTrack;

// Turns a finished fragmented QuickTime movie into a standard one, in place, without moving a byte of its
// pictures or sound. Players and editors that read fragments badly (GStreamer takes the movie for as long
// as its fragments' index says, which misses the last fragment; editors ask for a sample table) then get
// what they expect: `ftyp`, `mdat`, `moov`.
//
// While the movie is written, follow() reads each new fragment's `moof` (the page cache still has it) and
// keeps every track's sample table, compactly: a take of ten hours at 60 frames a second holds two
// million pictures, and the finish must not read the whole file back. At a clean finish, two steps, each
// leaving a movie that every reader opens with all of its pictures and sound:
//  1. appendStandardHeader(): a full `moov` goes at the end of the file, after the fragments' index. The
//     file has two then; readers take the first, the fragmented one, so a kill here loses nothing.
//  2. hideFragments(): one write of 16 bytes turns the old header into the start of a single `mdat`
//     (64-bit size) that covers the old header, every fragment and the index, up to the new header,
//     whose sample offsets point into it. No reader looks inside an `mdat`: the movie is standard.
// Each step is synced before it returns. Anything unexpected (a box that cannot be read, an encrypted
// movie, a file that is not fragmented) is a failure that every later call answers with; the movie then
// simply stays fragmented.
//
// It does not own the descriptor, which must be open for reading and writing; it is not safe to call from
// two threads at once.
class StandardMovie {
public:
    explicit StandardMovie(int fd);
    ~StandardMovie();
    StandardMovie(const StandardMovie&) = delete;
    StandardMovie& operator=(const StandardMovie&) = delete;

    // Reads the top-level boxes from where the last call stopped up to `fileEnd`: the movie's header the
    // first time, then each fragment's `moof` (an `mdat` only by its header). A box that `fileEnd` cuts,
    // or a fragment whose media data it cuts, is read by a later call. Reading stops for good after the
    // fragments' index (`mfra`); whatever follows it is left over from a finish that was cut short, and the
    // new header replaces it.
    Result<> follow(int64_t fileEnd);

    // Step 1, once follow() has reached the fragments' index (refused before): appends the standard
    // header and syncs.
    Result<> appendStandardHeader();
    // Step 2, after step 1: hides the fragments in one media-data box and syncs.
    Result<> hideFragments();

    // Movie fragments read so far, and where reading goes on (the end of the index once it is read).
    int64_t fragments() const { return _fragments; }
    int64_t followed() const { return _position; }
    bool hasIndex() const { return _indexed; }

private:
    Result<> fail(std::string why);
    // The box in _buffer: the fragmented header, or the fragment at `offset`.
    Result<> readHeader();
    Result<> readFragment(uint64_t offset, uint64_t fileEnd);
    // The standard header: the old one's boxes with full sample tables and durations, without `mvex`.
    Result<std::vector<uint8_t>> standardHeader();

    int _fd;
    int64_t _position = 0;
    int64_t _fragments = 0;
    bool _indexed = false;
    // The fragmented header: where it lies, and its bytes, from which the standard one is made.
    int64_t _headerOffset = -1;
    std::vector<uint8_t> _header;
    uint32_t _movieTimeScale = 0;
    std::vector<std::unique_ptr<StandardMovieTrack>> _tracks; // in the order of their `trak` boxes
    int64_t _standardOffset = -1;                             // where step 1 put the standard header
    std::optional<Error> _failure;
    std::vector<uint8_t> _buffer; // the box being read
};

// The whole conversion of a finished fragmented movie, by path: follow, then both steps. It also repairs
// a movie that a kill during the finish left fragmented, with or without part of a standard header after
// its index.
Result<> MakeStandardMovie(const std::filesystem::path& path);

} // namespace quorva
