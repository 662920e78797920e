#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace quorva {

// What the OSCQuery server makes of an HTTP request's method and target. A pure function, kept apart
// from the sockets so that a fuzzer can drive it with whatever bytes a client may send.
struct HTTPRequest {
    int64_t status = 0;  // 0 when the request can be answered; else 405, to be answered as is
    bool isHead = false; // a HEAD request: the same answer, without its body
    std::string path;    // percent-decoded (raw where that fails), "/" when empty; always valid UTF-8
    std::string query;   // the name of the first query item ("VALUE" for "?VALUE=1&x"); may be empty

    // Text that is not UTF-8 is taken as ISO Latin-1, so that whatever arrives becomes well-formed text.
    static HTTPRequest Parse(std::string_view method, std::string_view target);
};

} // namespace quorva
