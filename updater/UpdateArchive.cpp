#include "updater/UpdateArchive.h"

#include <archive.h>
#include <archive_entry.h>
#include <sodium.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace quorva {

namespace {

namespace fs = std::filesystem;

UpdateError Failed(UpdateError::Kind kind, std::string detail = {}, std::string expected = {}) {
    return UpdateError{kind, std::move(detail), std::move(expected)};
}

UpdateError StorageFailed(const fs::path& file) {
    return Failed(UpdateError::Kind::StorageFailed, file.string() + ": " + std::strerror(errno));
}

bool SodiumReady() {
    static const bool ready = sodium_init() >= 0;
    return ready;
}

// A file mapped into memory for reading; empty files map to nothing.
class MappedFile {
public:
    static UpdateResult<std::unique_ptr<MappedFile>> open(const fs::path& file) {
        const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            return StorageFailed(file);
        struct stat info {};
        auto mapped = std::make_unique<MappedFile>();
        if (::fstat(fd, &info) == 0 && info.st_size > 0) {
            mapped->_size = size_t(info.st_size);
            void* data = ::mmap(nullptr, mapped->_size, PROT_READ, MAP_PRIVATE, fd, 0);
            mapped->_data = data == MAP_FAILED ? nullptr : static_cast<const unsigned char*>(data);
        }
        const int error = errno;
        ::close(fd);
        if (mapped->_size > 0 && !mapped->_data) {
            errno = error;
            return StorageFailed(file);
        }
        return mapped;
    }
    ~MappedFile() {
        if (_data)
            ::munmap(const_cast<unsigned char*>(_data), _size);
    }
    const unsigned char* data() const { return _data; }
    size_t size() const { return _size; }

private:
    const unsigned char* _data = nullptr;
    size_t _size = 0;
};

std::vector<unsigned char> FromBase64(std::string_view text) {
    std::vector<unsigned char> bytes(text.size());
    size_t length = 0;
    if (sodium_base642bin(bytes.data(), bytes.size(), text.data(), text.size(), " \t\r\n", &length, nullptr,
                          sodium_base64_VARIANT_ORIGINAL) != 0)
        return {};
    bytes.resize(length);
    return bytes;
}

// A key as people compare them: the hex of its first eight bytes.
std::string Fingerprint(const unsigned char* key) {
    char hex[17];
    sodium_bin2hex(hex, sizeof hex, key, 8);
    return hex;
}

} // namespace

UpdateResult<std::string> FileSHA256(const fs::path& file) {
    auto mapped = MappedFile::open(file);
    if (!mapped)
        return mapped.error();
    std::array<unsigned char, crypto_hash_sha256_BYTES> digest{};
    if (!SodiumReady())
        return Failed(UpdateError::Kind::StorageFailed, "the cryptography library could not start");
    crypto_hash_sha256(digest.data(), mapped.value()->data(), mapped.value()->size());
    char hex[2 * crypto_hash_sha256_BYTES + 1];
    sodium_bin2hex(hex, sizeof hex, digest.data(), digest.size());
    return std::string(hex);
}

UpdateResult<> VerifyArchiveSignature(const fs::path& archive, std::string_view signature,
                                      std::string_view publicKey) {
    if (!SodiumReady())
        return Failed(UpdateError::Kind::InvalidCodeSignature);
    const std::vector<unsigned char> trusted = FromBase64(publicKey);
    const std::vector<unsigned char> signed_ = FromBase64(signature);
    if (trusted.size() != crypto_sign_PUBLICKEYBYTES ||
        signed_.size() != crypto_sign_PUBLICKEYBYTES + crypto_sign_BYTES)
        return Failed(UpdateError::Kind::InvalidCodeSignature);
    const unsigned char* signer = signed_.data();
    if (!std::equal(trusted.begin(), trusted.end(), signer))
        return Failed(UpdateError::Kind::TeamIdentifierMismatch, Fingerprint(signer),
                      Fingerprint(trusted.data()));
    auto mapped = MappedFile::open(archive);
    if (!mapped)
        return mapped.error();
    if (crypto_sign_verify_detached(signer + crypto_sign_PUBLICKEYBYTES, mapped.value()->data(),
                                    mapped.value()->size(), trusted.data()) != 0)
        return Failed(UpdateError::Kind::InvalidCodeSignature);
    return {};
}

UpdateResult<> ExtractZip(const fs::path& archive, const fs::path& folder) {
    std::error_code error;
    if (!fs::create_directories(folder, error) && error)
        return Failed(UpdateError::Kind::StorageFailed, folder.string() + ": " + error.message());
    std::unique_ptr<struct archive, decltype(&archive_read_free)> reader(archive_read_new(),
                                                                         archive_read_free);
    std::unique_ptr<struct archive, decltype(&archive_write_free)> writer(archive_write_disk_new(),
                                                                          archive_write_free);
    archive_read_support_format_zip(reader.get());
    archive_write_disk_set_options(writer.get(), ARCHIVE_EXTRACT_PERM | ARCHIVE_EXTRACT_TIME |
                                                     ARCHIVE_EXTRACT_SECURE_NODOTDOT |
                                                     ARCHIVE_EXTRACT_SECURE_SYMLINKS);
    auto failed = [](struct archive* which) {
        const char* reason = archive_error_string(which);
        return Failed(UpdateError::Kind::ExtractionFailed, reason ? reason : "unknown error");
    };
    if (archive_read_open_filename(reader.get(), archive.c_str(), 1 << 16) != ARCHIVE_OK)
        return failed(reader.get());
    archive_entry* entry = nullptr;
    for (int status; (status = archive_read_next_header(reader.get(), &entry)) != ARCHIVE_EOF;) {
        if (status != ARCHIVE_OK)
            return failed(reader.get());
        // An install is files and folders. Links could point anywhere, and the folder's own path is
        // absolute, so the archive's names are checked here before they are put under it.
        const std::string name = archive_entry_pathname(entry);
        const auto type = archive_entry_filetype(entry);
        if ((type != AE_IFREG && type != AE_IFDIR) || archive_entry_hardlink(entry))
            return Failed(UpdateError::Kind::ExtractionFailed, "not a file or a folder: " + name);
        if (name.starts_with("/"))
            return Failed(UpdateError::Kind::ExtractionFailed, "absolute path " + name);
        archive_entry_set_pathname(entry, (folder / name).c_str());
        // What was set-user or set-group on the publisher's machine is not on this one.
        archive_entry_set_perm(entry, archive_entry_perm(entry) & 0777);
        if (archive_write_header(writer.get(), entry) != ARCHIVE_OK)
            return failed(writer.get());
        const void* block = nullptr;
        size_t size = 0;
        la_int64_t offset = 0;
        while ((status = archive_read_data_block(reader.get(), &block, &size, &offset)) == ARCHIVE_OK)
            if (archive_write_data_block(writer.get(), block, size, offset) != ARCHIVE_OK)
                return failed(writer.get());
        if (status != ARCHIVE_EOF)
            return failed(reader.get());
        if (archive_write_finish_entry(writer.get()) != ARCHIVE_OK)
            return failed(writer.get());
    }
    if (archive_write_close(writer.get()) != ARCHIVE_OK)
        return failed(writer.get());
    return {};
}

bool IsPortableInstall(const fs::path& folder) {
    std::error_code error;
    const fs::path program = folder / ProgramFileName;
    return fs::is_regular_file(fs::symlink_status(program, error)) && ::access(program.c_str(), X_OK) == 0 &&
           fs::is_regular_file(fs::symlink_status(folder / PortableInstallMarker, error));
}

UpdateResult<fs::path> FindInstallFolder(const fs::path& folder) {
    if (IsPortableInstall(folder))
        return folder;
    std::vector<fs::path> folders;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error))
        if (entry.is_directory(error) && !entry.is_symlink(error))
            folders.push_back(entry.path());
    std::sort(folders.begin(), folders.end());
    for (const fs::path& candidate : folders)
        if (IsPortableInstall(candidate))
            return candidate;
    return Failed(UpdateError::Kind::AppBundleNotFound);
}

} // namespace quorva
