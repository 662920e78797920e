#pragma once

#include "updater/UpdateError.h"

#include <atomic>
#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace quorva {

// One GET over HTTP or HTTPS (redirects followed, to HTTP or HTTPS only), never answered from a cache.
//
// Threads: text() and download() block their caller for the whole transfer: up to timeoutSeconds to
// connect, then as long as bytes keep coming, each silence up to timeoutSeconds again. So they run on
// the updater's own thread, never on the main thread or a recording's. Each call has a transfer of its
// own and raises no signal, so any number may run at once on different threads; only `cancelled` is
// meant to be touched by another thread meanwhile.
struct HTTPFetch {
    std::string url;
    std::vector<std::string> headers; // "Name: value"
    // Seconds the server may stay silent, while connecting or sending, before the request fails.
    double timeoutSeconds = 15;
    // Set from another thread to end the transfer early; it then fails as NetworkFailed.
    const std::atomic<bool>* cancelled = nullptr;

    // The body, at most `limit` bytes (more fails: no manifest or signature is that large). A status
    // outside 200 to 299 fails as HTTPStatus, a transfer that fails as NetworkFailed.
    UpdateResult<std::string> text(size_t limit) const;
    // Writes the body to `file`, which it creates.
    UpdateResult<> download(const std::filesystem::path& file) const;
};

} // namespace quorva
