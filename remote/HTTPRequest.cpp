#include "remote/HTTPRequest.h"

#include "platform/UTF8.h"

#include <optional>

namespace quorva {
namespace {

std::string FromLatin1(std::string_view bytes) {
    std::string text;
    text.reserve(bytes.size() * 2);
    for (unsigned char c : bytes) {
        if (c < 0x80) {
            text.push_back(char(c));
        } else {
            text.push_back(char(0xC0 | (c >> 6)));
            text.push_back(char(0x80 | (c & 0x3F)));
        }
    }
    return text;
}

int HexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Nothing when an escape is cut short or not hexadecimal, or when the bytes decoded are not UTF-8.
std::optional<std::string> PercentDecoded(std::string_view text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded.push_back(text[i]);
            continue;
        }
        if (i + 2 >= text.size())
            return std::nullopt;
        int high = HexValue(text[i + 1]), low = HexValue(text[i + 2]);
        if (high < 0 || low < 0)
            return std::nullopt;
        decoded.push_back(char(high * 16 + low));
        i += 2;
    }
    if (!IsValidUTF8(decoded))
        return std::nullopt;
    return decoded;
}

} // namespace

HTTPRequest HTTPRequest::Parse(std::string_view method, std::string_view target) {
    HTTPRequest request;
    if (method != "GET" && method != "HEAD") {
        request.status = 405;
        return request;
    }
    request.isHead = method == "HEAD";

    std::string text = IsValidUTF8(target) ? std::string(target) : FromLatin1(target);
    std::string_view path = text, query;
    if (size_t mark = path.find('?'); mark != std::string_view::npos) {
        query = path.substr(mark + 1);
        path = path.substr(0, mark);
        query = query.substr(0, query.find('&'));
        query = query.substr(0, query.find('='));
    }
    request.path = PercentDecoded(path).value_or(std::string(path));
    if (request.path.empty())
        request.path = "/";
    request.query = std::string(query);
    return request;
}

} // namespace quorva
