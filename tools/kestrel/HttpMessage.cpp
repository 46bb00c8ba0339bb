#include "HttpMessage.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <limits>

namespace kestrel::http {
namespace {

bool isTokenCharacter(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) ||
           std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool isToken(std::string_view text)
{
    for (char c : text)
        if (!isTokenCharacter(c))
            return false;
    return !text.empty();
}

bool equalIgnoringCase(std::string_view a, std::string_view b)
{
    if (a.size() != b.size())
        return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

std::string_view trimmed(std::string_view text)
{
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
        text.remove_suffix(1);
    return text;
}

// Where the line that starts at 'from' ends (its LF); npos when that has not come yet.
std::size_t lineEnd(std::string_view bytes, std::size_t from) { return bytes.find('\n', from); }

// The line from 'from' to its LF at 'end', without the CR before it.
std::string_view lineAt(std::string_view bytes, std::size_t from, std::size_t end)
{
    std::string_view line = bytes.substr(from, end - from);
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    return line;
}

// The path of an origin-form target ("/metrics?x") or of an absolute-form one
// ("http://host:9835/metrics"); other forms ("*") are kept whole and found nowhere.
std::string pathOf(std::string_view target)
{
    const auto scheme = target.find("://");
    if (target.front() != '/' && scheme != std::string_view::npos && isToken(target.substr(0, scheme))) {
        const auto path = target.find('/', scheme + 3);
        target = path == std::string_view::npos ? std::string_view("/") : target.substr(path);
    }
    return std::string(target.substr(0, target.find('?')));
}

// "GET /metrics HTTP/1.1": 0, with the method and path in 'head' and whether
// the client speaks HTTP/1.0 in 'http10'; or the status to refuse it with.
int parseRequestLine(std::string_view line, RequestHead& head, bool& http10)
{
    const auto first = line.find(' ');
    const auto second = first == std::string_view::npos ? first : line.find(' ', first + 1);
    if (second == std::string_view::npos)
        return 400;
    const std::string_view method = line.substr(0, first);
    const std::string_view target = line.substr(first + 1, second - first - 1);
    const std::string_view version = line.substr(second + 1);
    if (!isToken(method) || target.empty())
        return 400;
    for (char c : target)
        if (static_cast<unsigned char>(c) <= ' ' || c == '\x7f')
            return 400;
    const auto digit = [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; };
    if (version.size() != 8 || version.compare(0, 5, "HTTP/") != 0 || !digit(version[5]) || version[6] != '.' ||
        !digit(version[7]))
        return 400;
    if (version[5] != '1')
        return 505;
    head.method = std::string(method);
    head.path = pathOf(target);
    http10 = version[7] == '0';
    return 0;
}

// Digits only; a number past 64 bits is the largest one, refused as too large.
bool parseLength(std::string_view text, std::uint64_t& length)
{
    if (text.empty())
        return false;
    length = 0;
    for (char c : text) {
        if (!std::isdigit(static_cast<unsigned char>(c)))
            return false;
        const unsigned digit = static_cast<unsigned>(c - '0');
        const auto max = std::numeric_limits<std::uint64_t>::max();
        length = length > (max - digit) / 10 ? max : length * 10 + digit;
    }
    return true;
}

// Applies one "Name: value" line to 'head'; false when the line is malformed.
bool parseField(std::string_view line, RequestHead& head, bool& lengthSeen, bool& closeAsked, bool& keepAliveAsked)
{
    const auto colon = line.find(':');
    if (colon == std::string_view::npos || !isToken(line.substr(0, colon)))
        return false; // also a folded line, which starts with a blank
    const std::string_view name = line.substr(0, colon);
    const std::string_view value = trimmed(line.substr(colon + 1));
    for (char c : value)
        if ((static_cast<unsigned char>(c) < ' ' && c != '\t') || c == '\x7f')
            return false;
    if (equalIgnoringCase(name, "Content-Length")) {
        std::uint64_t length = 0;
        // Two lengths that differ leave the body's end in doubt.
        if (!parseLength(value, length) || (lengthSeen && length != head.contentLength))
            return false;
        head.contentLength = length;
        lengthSeen = true;
    } else if (equalIgnoringCase(name, "Transfer-Encoding")) {
        head.lengthUnknown = true;
    } else if (equalIgnoringCase(name, "Connection")) {
        for (std::size_t start = 0; start <= value.size();) {
            const auto comma = std::min(value.find(',', start), value.size());
            const std::string_view option = trimmed(value.substr(start, comma - start));
            closeAsked = closeAsked || equalIgnoringCase(option, "close");
            keepAliveAsked = keepAliveAsked || equalIgnoringCase(option, "keep-alive");
            start = comma + 1;
        }
    }
    return true;
}

const char* reasonOf(int status)
{
    switch (status) {
    case 200: return "OK";
    case 400: return "Bad Request";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 408: return "Request Timeout";
    case 411: return "Length Required";
    case 413: return "Content Too Large";
    case 414: return "URI Too Long";
    case 431: return "Request Header Fields Too Large";
    case 505: return "HTTP Version Not Supported";
    default: return "Internal Server Error";
    }
}

// Now, as "Sun, 06 Nov 1994 08:49:37 GMT", in English whatever the locale.
std::string httpDate()
{
    static const char* const days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
#if defined(_WIN32)
    gmtime_s(&utc, &now);
#else
    gmtime_r(&now, &utc);
#endif
    char text[32];
    std::snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d GMT", days[utc.tm_wday % 7], utc.tm_mday,
                  months[utc.tm_mon % 12], utc.tm_year + 1900, utc.tm_hour, utc.tm_min, utc.tm_sec);
    return text;
}

} // namespace

HeadParse parseRequestHead(std::string_view bytes, const HeadLimits& limits)
{
    HeadParse parse;
    const auto refused = [&parse](int status) {
        parse.outcome = HeadParse::Refused;
        parse.status = status;
        return parse;
    };
    const std::size_t requestLineEnd = lineEnd(bytes, 0);
    // The line's CR LF is not part of its length.
    if (requestLineEnd == std::string_view::npos)
        return bytes.size() > limits.requestLine + 1 ? refused(414) : parse;
    const std::string_view requestLine = lineAt(bytes, 0, requestLineEnd);
    if (requestLine.size() > limits.requestLine)
        return refused(414);
    bool http10 = false;
    if (const int status = parseRequestLine(requestLine, parse.head, http10))
        return refused(status);

    const std::size_t headersStart = requestLineEnd + 1;
    bool lengthSeen = false, closeAsked = false, keepAliveAsked = false;
    for (std::size_t start = headersStart;;) {
        const std::size_t end = lineEnd(bytes, start);
        if ((end == std::string_view::npos ? bytes.size() : end + 1) - headersStart > limits.headers)
            return refused(431);
        if (end == std::string_view::npos)
            return parse;
        const std::string_view line = lineAt(bytes, start, end);
        start = end + 1;
        if (line.empty()) {
            parse.outcome = HeadParse::Complete;
            parse.length = start;
            parse.head.keepAlive = !closeAsked && (!http10 || keepAliveAsked);
            return parse;
        }
        if (!parseField(line, parse.head, lengthSeen, closeAsked, keepAliveAsked))
            return refused(400);
    }
}

std::string responseBytes(int status, std::string_view contentType, std::string_view body, bool withBody,
                          bool keepAlive)
{
    std::string bytes = "HTTP/1.1 " + std::to_string(status) + " " + reasonOf(status) + "\r\nDate: " + httpDate() +
                        "\r\nContent-Type: ";
    bytes.append(contentType);
    bytes += "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
    if (status == 405)
        bytes += "Allow: GET, HEAD\r\n";
    bytes += keepAlive ? "Connection: keep-alive\r\n\r\n" : "Connection: close\r\n\r\n";
    if (withBody)
        bytes.append(body);
    return bytes;
}

std::string responseBytes(int status, bool withBody, bool keepAlive)
{
    const std::string text = std::to_string(status) + " " + reasonOf(status) + "\n";
    return responseBytes(status, "text/plain; charset=utf-8", text, withBody, keepAlive);
}

} // namespace kestrel::http
