#pragma once

// A release service on 127.0.0.1, and the archives and signatures it serves.

#include <archive.h>
#include <archive_entry.h>
#include <sodium.h>

#include <arpa/inet.h>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace quorva::testing {

// Answers GET requests from a table of paths, one connection at a time; a path it does not know is 404.
// A path marked silent gets its request read and never an answer, as from a server that hangs.
class ReleaseServer {
public:
    ReleaseServer() {
        _listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{
            .sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
        socklen_t length = sizeof address;
        ::bind(_listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(_listener, 16);
        ::getsockname(_listener, reinterpret_cast<sockaddr*>(&address), &length);
        _port = ntohs(address.sin_port);
        _thread = std::thread([this] { serve(); });
    }
    ~ReleaseServer() {
        _stop = true;
        _thread.join();
        for (int fd : _held)
            ::close(fd);
        ::close(_listener);
    }

    std::string url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(_port) + path;
    }
    void answer(const std::string& path, int status, std::string body) {
        std::lock_guard guard(_lock);
        _routes[path] = {status, std::move(body)};
    }
    void hang(const std::string& path) { answer(path, 0, {}); }
    // The heads of the requests received so far.
    std::vector<std::string> heads() {
        std::lock_guard guard(_lock);
        return _heads;
    }

private:
    void serve() {
        while (!_stop) {
            pollfd wait{_listener, POLLIN, 0};
            if (::poll(&wait, 1, 50) <= 0)
                continue;
            const int fd = ::accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0)
                continue;
            std::string head;
            char buffer[4096];
            for (ssize_t n;
                 head.find("\r\n\r\n") == std::string::npos && (n = ::read(fd, buffer, sizeof buffer)) > 0;)
                head.append(buffer, size_t(n));
            const size_t start = head.find(' ') + 1;
            const std::string path = head.substr(start, head.find(' ', start) - start);
            std::pair<int, std::string> route{404, "Not Found"};
            {
                std::lock_guard guard(_lock);
                _heads.push_back(head);
                if (auto found = _routes.find(path); found != _routes.end())
                    route = found->second;
            }
            if (route.first == 0) {
                _held.push_back(fd);
                continue;
            }
            const std::string answer =
                "HTTP/1.1 " + std::to_string(route.first) +
                " X\r\nConnection: close\r\nContent-Length: " + std::to_string(route.second.size()) +
                "\r\n\r\n" + route.second;
            for (ssize_t sent = 0, n = 0; sent < ssize_t(answer.size()); sent += n)
                if ((n = ::send(fd, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL)) <= 0)
                    break;
            ::close(fd);
        }
    }

    int _listener = -1;
    uint16_t _port = 0;
    std::atomic<bool> _stop{false};
    std::mutex _lock;
    std::map<std::string, std::pair<int, std::string>> _routes;
    std::vector<std::string> _heads;
    std::vector<int> _held;
    std::thread _thread;
};

// The key the test programs trust (its public half is built into them) and one they do not.
struct SigningKey {
    unsigned char publicKey[crypto_sign_PUBLICKEYBYTES];
    unsigned char secretKey[crypto_sign_SECRETKEYBYTES];
    explicit SigningKey(unsigned char first) {
        if (sodium_init() < 0)
            throw std::runtime_error("libsodium");
        unsigned char seed[crypto_sign_SEEDBYTES];
        for (size_t i = 0; i < sizeof seed; ++i)
            seed[i] = static_cast<unsigned char>(first + i * 7);
        crypto_sign_seed_keypair(publicKey, secretKey, seed);
    }
    static SigningKey trusted() { return SigningKey(0x51); }
    static SigningKey other() { return SigningKey(0x02); }

    std::string publicBase64() const { return Base64(publicKey, sizeof publicKey); }
    std::string fingerprint() const {
        char hex[17];
        sodium_bin2hex(hex, sizeof hex, publicKey, 8);
        return hex;
    }
    // The detached signature file of `archive`: base64 of the public key and the signature.
    std::string sign(const std::string& archive) const {
        unsigned char both[crypto_sign_PUBLICKEYBYTES + crypto_sign_BYTES];
        std::copy(std::begin(publicKey), std::end(publicKey), both);
        crypto_sign_detached(both + crypto_sign_PUBLICKEYBYTES, nullptr,
                             reinterpret_cast<const unsigned char*>(archive.data()), archive.size(),
                             secretKey);
        return Base64(both, sizeof both) + "\n";
    }
    static std::string Base64(const unsigned char* bytes, size_t size) {
        std::string text(sodium_base64_ENCODED_LEN(size, sodium_base64_VARIANT_ORIGINAL), '\0');
        sodium_bin2base64(text.data(), text.size(), bytes, size, sodium_base64_VARIANT_ORIGINAL);
        text.resize(text.size() - 1);
        return text;
    }
};

// A .zip in memory, stored without compression (the programs in it are large and the tests many).
struct ZipEntry {
    std::string name; // a folder ends in "/"
    std::string content;
    int mode = 0644;
};
inline std::string Zip(const std::vector<ZipEntry>& entries) {
    std::string bytes;
    archive* writer = archive_write_new();
    archive_write_set_format_zip(writer);
    archive_write_set_options(writer, "zip:compression=store");
    archive_write_open(
        writer, &bytes, nullptr,
        [](archive*, void* out, const void* data, size_t size) -> la_ssize_t {
            static_cast<std::string*>(out)->append(static_cast<const char*>(data), size);
            return la_ssize_t(size);
        },
        nullptr);
    for (const ZipEntry& file : entries) {
        archive_entry* entry = archive_entry_new();
        archive_entry_set_pathname(entry, file.name.c_str());
        const bool folder = file.name.ends_with("/");
        archive_entry_set_filetype(entry, folder ? AE_IFDIR : AE_IFREG);
        archive_entry_set_perm(entry, folder ? 0755 : file.mode);
        archive_entry_set_size(entry, la_int64_t(file.content.size()));
        archive_write_header(writer, entry);
        archive_write_data(writer, file.content.data(), file.content.size());
        archive_entry_free(entry);
    }
    archive_write_close(writer);
    archive_write_free(writer);
    return bytes;
}

inline std::string ReadFile(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline std::string SHA256Hex(const std::string& bytes) {
    unsigned char digest[crypto_hash_sha256_BYTES];
    crypto_hash_sha256(digest, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    char hex[2 * sizeof digest + 1];
    sodium_bin2hex(hex, sizeof hex, digest, sizeof digest);
    return hex;
}

} // namespace quorva::testing
