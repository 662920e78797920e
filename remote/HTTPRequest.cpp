#include "remote/HTTPRequest.h"

#include "platform/UTF8.h"

#include <optional>
#include <vector>

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

std::vector<std::string_view> SplitAtBlanks(std::string_view line) {
    std::vector<std::string_view> parts;
    size_t start = 0;
    while (start < line.size()) {
        size_t blank = line.find(' ', start);
        size_t end = blank == std::string_view::npos ? line.size() : blank;
        if (end > start)
            parts.push_back(line.substr(start, end - start));
        start = end + 1;
    }
    return parts;
}

} // namespace

HTTPRequest HTTPRequest::Parse(std::string_view head) {
    HTTPRequest request;
    std::string text = IsValidUTF8(head) ? std::string(head) : FromLatin1(head);
    std::string_view line = text;
    if (size_t end = line.find("\r\n"); end != std::string_view::npos)
        line = line.substr(0, end);
    std::vector<std::string_view> parts = SplitAtBlanks(line);
    if (parts.size() < 2) {
        request.status = 400;
        return request;
    }
    if (parts[0] != "GET" && parts[0] != "HEAD") {
        request.status = 405;
        return request;
    }
    request.isHead = parts[0] == "HEAD";

    std::string_view target = parts[1];
    std::string_view path = target, query;
    if (size_t mark = target.find('?'); mark != std::string_view::npos) {
        path = target.substr(0, mark);
        query = target.substr(mark + 1);
        query = query.substr(0, query.find('&'));
        query = query.substr(0, query.find('='));
    }
    request.path = PercentDecoded(path).value_or(std::string(path));
    if (request.path.empty())
        request.path = "/";
    request.query = std::string(query);
    return request;
}

bool HTTPRequest::IsComplete(std::string_view buffer) {
    return buffer.size() >= LargestHead || buffer.find("\r\n\r\n") != std::string_view::npos;
}

std::string_view HTTPReason(int64_t status) {
    switch (status) {
    case 200:
        return "OK";
    case 204:
        return "No Content";
    case 400:
        return "Bad Request";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    case 503:
        return "Service Unavailable";
    default:
        return "Error";
    }
}

std::string HTTPResponse(int64_t status, std::string_view body) {
    std::string response =
        "HTTP/1.1 " + std::to_string(status) + " " + std::string(HTTPReason(status)) + "\r\n";
    // Browsers' OSCQuery clients run from other origins; the tree is public on the local network anyway.
    response += "Content-Type: application/json; charset=utf-8\r\n"
                "Access-Control-Allow-Origin: *\r\n"
                "Content-Length: " +
                std::to_string(body.size()) +
                "\r\n"
                "Connection: close\r\n\r\n";
    response += body;
    return response;
}

} // namespace quorva
