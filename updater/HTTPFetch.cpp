#include "updater/HTTPFetch.h"

#include <curl/curl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>

namespace quorva {

namespace {

struct Sink {
    std::string* text = nullptr;
    size_t limit = 0;
    std::FILE* file = nullptr;
    std::string fileName;
    bool tooLarge = false;
    int writeError = 0;
};

size_t Write(char* data, size_t, size_t size, void* user) {
    Sink& sink = *static_cast<Sink*>(user);
    if (sink.file) {
        if (std::fwrite(data, 1, size, sink.file) != size)
            sink.writeError = errno;
        return sink.writeError ? 0 : size;
    }
    if (sink.text->size() + size > sink.limit) {
        sink.tooLarge = true;
        return 0;
    }
    sink.text->append(data, size);
    return size;
}

int Progress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    const auto* cancelled = static_cast<const std::atomic<bool>*>(user);
    return cancelled && cancelled->load() ? 1 : 0;
}

UpdateError Failed(UpdateError::Kind kind, std::string detail) {
    return UpdateError{kind, std::move(detail), {}};
}

UpdateResult<> Perform(const HTTPFetch& fetch, Sink& sink) {
    // Initialising the library is not thread-safe; once, before any transfer.
    static std::once_flag initialised;
    std::call_once(initialised, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });

    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
    if (!curl)
        return Failed(UpdateError::Kind::NetworkFailed, "the transfer library could not start");
    curl_slist* list = nullptr;
    for (const std::string& header : fetch.headers)
        list = curl_slist_append(list, header.c_str());
    // Neither a proxy's cache nor a server's may answer with an old release.
    list = curl_slist_append(list, "Cache-Control: no-cache");
    list = curl_slist_append(list, "Pragma: no-cache");
    std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(list, curl_slist_free_all);

    // The time-out is one of silence, as a browser's is: a large archive on a slow line may take longer
    // than it as long as bytes keep coming.
    const long seconds = std::max(1L, long(fetch.timeoutSeconds + 0.5));
    CURL* handle = curl.get();
    curl_easy_setopt(handle, CURLOPT_URL, fetch.url.c_str());
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(handle, CURLOPT_MAXREDIRS, 10L);
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, seconds);
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, seconds);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, Write);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &sink);
    curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, Progress);
    curl_easy_setopt(handle, CURLOPT_XFERINFODATA, fetch.cancelled);
    char reason[CURL_ERROR_SIZE] = {};
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, reason);

    const CURLcode code = curl_easy_perform(handle);
    long status = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    // A status that says the request failed explains more than the body it came with.
    if (status != 0 && (status < 200 || status > 299))
        return Failed(UpdateError::Kind::HTTPStatus, std::to_string(status));
    if (sink.tooLarge)
        return Failed(UpdateError::Kind::NetworkFailed, "the answer of " + fetch.url + " is too large");
    if (sink.writeError)
        return Failed(UpdateError::Kind::StorageFailed,
                      sink.fileName + ": " + std::strerror(sink.writeError));
    if (code != CURLE_OK)
        return Failed(UpdateError::Kind::NetworkFailed, reason[0] ? reason : curl_easy_strerror(code));
    return {};
}

} // namespace

UpdateResult<std::string> HTTPFetch::text(size_t limit) const {
    std::string body;
    Sink sink;
    sink.text = &body;
    sink.limit = limit;
    if (auto done = Perform(*this, sink); !done)
        return done.error();
    return body;
}

UpdateResult<> HTTPFetch::download(const std::filesystem::path& file) const {
    std::unique_ptr<std::FILE, decltype(&std::fclose)> out(std::fopen(file.c_str(), "wbx"), std::fclose);
    if (!out)
        return Failed(UpdateError::Kind::StorageFailed, file.string() + ": " + std::strerror(errno));
    Sink sink;
    sink.file = out.get();
    sink.fileName = file.string();
    if (auto done = Perform(*this, sink); !done)
        return done.error();
    if (std::fflush(out.get()) != 0)
        return Failed(UpdateError::Kind::StorageFailed, file.string() + ": " + std::strerror(errno));
    return {};
}

} // namespace quorva
