// Header sets and content types.
#include "serve/http_response.hpp"
#include "platform/decimal.hpp"

#include <charconv>

namespace tovel::serve {

namespace {

struct ContentType {
    std::string_view extension;
    std::string_view type;
};

constexpr ContentType kContentTypes[] = {
    {"html", "text/html; charset=utf-8"},
    {"htm", "text/html; charset=utf-8"},
    {"css", "text/css; charset=utf-8"},
    {"js", "text/javascript; charset=utf-8"},
    {"mjs", "text/javascript; charset=utf-8"},
    {"json", "application/json; charset=utf-8"},
    {"map", "application/json; charset=utf-8"},
    {"svg", "image/svg+xml"},
    {"png", "image/png"},
    {"jpg", "image/jpeg"},
    {"jpeg", "image/jpeg"},
    {"gif", "image/gif"},
    {"webp", "image/webp"},
    {"ico", "image/x-icon"},
    {"wasm", "application/wasm"},
    {"woff", "font/woff"},
    {"woff2", "font/woff2"},
    {"ttf", "font/ttf"},
    {"txt", "text/plain; charset=utf-8"},
    {"md", "text/plain; charset=utf-8"},
    {"xml", "application/xml; charset=utf-8"},
    {"pdf", "application/pdf"},
};

constexpr std::string_view kFallbackType = "application/octet-stream";

bool equalsFolded(std::string_view text, std::string_view lower) {
    if (text.size() != lower.size())
        return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
        if (c != lower[i])
            return false;
    }
    return true;
}

struct StatusLine {
    std::string_view code;
    std::string_view reason;
};

StatusLine statusLine(Status status) {
    switch (status) {
    case Status::BadRequest:
        return {"400", "Bad Request"};
    case Status::Forbidden:
        return {"403", "Forbidden"};
    case Status::NotFound:
        return {"404", "Not Found"};
    case Status::MethodNotAllowed:
        return {"405", "Method Not Allowed"};
    case Status::InternalServerError:
        return {"500", "Internal Server Error"};
    }
    return {"500", "Internal Server Error"};
}

} // namespace

std::string_view contentTypeFor(std::string_view fileName) {
    std::size_t dot = fileName.rfind('.');
    if (dot == std::string_view::npos)
        return kFallbackType;
    std::string_view extension = fileName.substr(dot + 1);
    for (const auto& entry : kContentTypes) {
        if (equalsFolded(extension, entry.extension))
            return entry.type;
    }
    return kFallbackType;
}

std::string staticFileHead(std::string_view contentType, std::uint64_t length,
                           Disposition disposition) {
    std::string head = "HTTP/1.1 200 OK\r\nContent-Type: ";
    head.append(contentType).append("\r\nContent-Length: ");
    appendDecimal(head, length);
    head.append("\r\n");
    if (disposition == Disposition::Attachment)
        head.append("Content-Disposition: attachment\r\n");
    head.append("Cache-Control: no-cache\r\n"
                "Cross-Origin-Resource-Policy: same-origin\r\n"
                "X-Content-Type-Options: nosniff\r\n"
                "X-Frame-Options: DENY\r\n"
                "Referrer-Policy: no-referrer\r\n"
                "Connection: close\r\n\r\n");
    return head;
}

std::string_view browserPageHead() {
    return "HTTP/1.1 200 OK\r\n"
           "Content-Type: text/html; charset=utf-8\r\n"
           "Cache-Control: no-store\r\n"
           "Cross-Origin-Resource-Policy: same-origin\r\n"
           "X-Content-Type-Options: nosniff\r\n"
           "X-Frame-Options: DENY\r\n"
           "Referrer-Policy: no-referrer\r\n"
           "Content-Security-Policy: default-src 'none'; style-src 'unsafe-inline'; script-src "
           "'unsafe-inline'; form-action 'self'; base-uri 'none'\r\n"
           "Connection: close\r\n\r\n";
}

std::string redirectHead(std::string_view location) {
    std::string head = "HTTP/1.1 302 Found\r\nLocation: ";
    head.append(location).append("\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    return head;
}

std::string errorResponse(Status status, Body body) {
    StatusLine line = statusLine(status);
    std::string response = "HTTP/1.1 ";
    response.append(line.code).append(" ").append(line.reason);
    response.append("\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Length: ");
    appendDecimal(response, line.reason.size() + 1);
    response.append("\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n");
    if (body == Body::Send)
        response.append(line.reason).append("\n");
    return response;
}

} // namespace tovel::serve
