#pragma once

#include "platform/Error.h"

#include <cstdint>
#include <filesystem>
#include <memory>

struct AVIOContext;

namespace quorva {

// The file that a movie is written to, through FFmpeg's I/O over our own writes and seeks: it is created
// exclusively, so that nothing is ever overwritten (not even a file that appeared after the recorder
// looked), opened for reading too (the fragments' headers are read back as they are written, see
// StandardMovie), and it can be synced at the end and cut back to its last whole fragment after a
// failure.
//
// Threads: one at a time, as its movie writer's.
class MovieFile {
public:
    // Errors, in the movie recorder's domain: "“name” already exists", "The movie file could not be
    // created" (the reason is logged). A failed creation leaves no file behind.
    static Result<std::unique_ptr<MovieFile>> create(const std::filesystem::path& path);

    // Closes the file, which stays.
    ~MovieFile();
    MovieFile(const MovieFile&) = delete;
    MovieFile& operator=(const MovieFile&) = delete;

    int descriptor() const { return _fd; }
    // What FFmpeg's muxer writes through; its error, once it has one, stays.
    AVIOContext* io() const { return _io; }

    // Sends what FFmpeg holds to the file: the file's size then, or FFmpeg's (negative) error code.
    int64_t flush();
    // flush() and then onto the disk: the file's size, or the error code.
    int64_t sync();
    // Cuts the file back to `size` bytes, logging when it cannot.
    void cutBackTo(int64_t size);

private:
    MovieFile(std::filesystem::path path, int fd);

    std::filesystem::path _path;
    int _fd;
    AVIOContext* _io = nullptr;
};

} // namespace quorva
