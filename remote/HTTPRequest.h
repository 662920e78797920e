#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace quorva {

// What the OSCQuery server makes of the head of one HTTP request. Pure functions, kept apart from the
// sockets so that they can be driven by a fuzzer with whatever bytes a client may send.
struct HTTPRequest {
    int64_t status = 0;  // 0 when the request can be answered; else 400 or 405, to be answered as is
    bool isHead = false; // a HEAD request: the same answer, without its body
    std::string path;    // percent-decoded (raw where that fails), "/" when empty; always valid UTF-8
    std::string query;   // the name of the first query item ("VALUE" for "?VALUE=1&x"); may be empty

    // Reads the request line of `head`, the bytes read so far. Text that is not UTF-8 is taken as
    // ISO Latin-1, so that whatever arrives becomes well-formed text.
    static HTTPRequest Parse(std::string_view head);

    // Whether enough of a request has arrived to answer it: its head is complete, or the buffer has
    // reached the most that is ever read.
    static bool IsComplete(std::string_view buffer);
    static constexpr size_t LargestHead = 16384;
};

// The bytes of a whole response: status line, the headers every answer carries, and the body.
std::string HTTPResponse(int64_t status, std::string_view body);

// The reason phrase sent with a status code ("Error" for any the server does not use).
std::string_view HTTPReason(int64_t status);

} // namespace quorva
