// Feeds arbitrary methods and targets, as an HTTP parser hands them on, to what the OSCQuery server makes
// of them. Beyond surviving them, it checks what the server relies on: the status is one it answers
// with, and the path and query are text that can go into JSON and logs.
#include "remote/HTTPRequest.h"

#include <nlohmann/json.hpp>

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using quorva::HTTPRequest;
    // The request line's first word is the method and the rest the target, as the corpus holds them.
    std::string_view line(reinterpret_cast<const char*>(data), size);
    line = line.substr(0, line.find("\r\n"));
    size_t blank = line.find(' ');
    std::string_view method = line.substr(0, blank);
    std::string_view target = blank == std::string_view::npos ? std::string_view() : line.substr(blank + 1);
    target = target.substr(0, target.rfind(" HTTP/"));
    HTTPRequest request = HTTPRequest::Parse(method, target);

    if (request.status != (method == "GET" || method == "HEAD" ? 0 : 405))
        std::abort();
    // The query is its first key alone.
    if (request.status == 0 &&
        (request.path.empty() || request.query.find_first_of("&=") != std::string::npos))
        std::abort();
    // Throws, and so aborts, on text that is not UTF-8.
    (void)nlohmann::json{request.path, request.query}.dump();
    return 0;
}
