#include "core/movie/MovieFile.h"

#include "core/movie/MovieWriter.h"
#include "platform/Log.h"

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quorva {

namespace {

int WriteFile(void* opaque, uint8_t* data, int size) {
    const int fd = *static_cast<int*>(opaque);
    int done = 0;
    while (done < size) {
        ssize_t n = ::write(fd, data + done, size_t(size - done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return AVERROR(errno);
        if (n == 0)
            return AVERROR(EIO);
        done += int(n);
    }
    return done;
}

int64_t SeekFile(void* opaque, int64_t offset, int whence) {
    const int fd = *static_cast<int*>(opaque);
    if (whence == AVSEEK_SIZE) {
        struct stat status;
        return fstat(fd, &status) == 0 ? int64_t(status.st_size) : AVERROR(errno);
    }
    off_t position = lseek(fd, offset, whence & ~AVSEEK_FORCE);
    return position < 0 ? AVERROR(errno) : int64_t(position);
}

} // namespace

Result<std::unique_ptr<MovieFile>> MovieFile::create(const std::filesystem::path& path) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        if (errno == EEXIST)
            return RecorderError("“" + path.filename().string() + "” already exists");
        Log("MovieRecorder: ", "cannot create " + path.string() + ": " + std::strerror(errno));
        return RecorderError("The movie file could not be created");
    }
    std::unique_ptr<MovieFile> file(new MovieFile(path, fd));
    constexpr int BufferSize = 1 << 16;
    auto* buffer = static_cast<unsigned char*>(av_malloc(BufferSize));
    if (buffer)
        file->_io = avio_alloc_context(buffer, BufferSize, 1, &file->_fd, nullptr, WriteFile, SeekFile);
    if (!file->_io) {
        av_free(buffer);
        file.reset();
        ::unlink(path.c_str());
        return RecorderError("The movie file could not be created");
    }
    file->_io->seekable = AVIO_SEEKABLE_NORMAL;
    return file;
}

MovieFile::MovieFile(std::filesystem::path path, int fd) : _path(std::move(path)), _fd(fd) {}

MovieFile::~MovieFile() {
    if (_io) {
        av_freep(&_io->buffer);
        avio_context_free(&_io);
    }
    ::close(_fd);
}

int64_t MovieFile::flush() {
    avio_flush(_io);
    return _io->error < 0 ? _io->error : avio_size(_io);
}

int64_t MovieFile::sync() {
    const int64_t size = flush();
    if (size >= 0 && ::fsync(_fd) != 0)
        return AVERROR(errno);
    return size;
}

void MovieFile::cutBackTo(int64_t size) {
    if (::ftruncate(_fd, size) != 0)
        Log("MovieRecorder: ",
            "cannot cut " + _path.string() + " back to its last fragment: " + std::strerror(errno));
}

} // namespace quorva
