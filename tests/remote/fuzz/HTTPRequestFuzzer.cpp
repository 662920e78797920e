// Feeds arbitrary request heads to the OSCQuery server's HTTP parser. Beyond surviving them, it checks
// what the server relies on: the status is one it answers with, the path and query are text that can go
// into JSON and logs, and the response built around them states its own length.
#include "remote/HTTPRequest.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using quorva::HTTPRequest;
    std::string_view head(reinterpret_cast<const char*>(data), size);
    (void)HTTPRequest::IsComplete(head);
    HTTPRequest request = HTTPRequest::Parse(head);

    if (request.status != 0 && request.status != 400 && request.status != 405)
        std::abort();
    if (request.status == 0) {
        if (request.path.empty())
            std::abort();
        if (request.query.find_first_of("&=") != std::string::npos)
            std::abort();
    }
    // Throws, and so aborts, on text that is not UTF-8.
    std::string dumped = nlohmann::json{request.path, request.query}.dump();

    std::string response = quorva::HTTPResponse(request.status, dumped);
    std::string length = "Content-Length: " + std::to_string(dumped.size()) + "\r\n";
    if (response.find(length) == std::string::npos ||
        response.substr(response.size() - dumped.size()) != dumped)
        std::abort();
    return 0;
}
