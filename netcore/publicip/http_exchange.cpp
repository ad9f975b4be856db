#include "netcore/publicip/http_exchange.h"

#include <algorithm>
#include <charconv>
#include <limits>

namespace netvane::PublicIPService {
namespace {

constexpr std::string_view kCRLF = "\r\n";
constexpr std::string_view kHeaderEnd = "\r\n\r\n";

std::string_view asText(std::span<const std::uint8_t> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// A whole-string integer with an optional sign, as a status code or a chunk
// size is written; nothing for anything else, overflow included.
std::optional<std::int64_t> parseInteger(std::string_view text, int base) {
    bool negative = false;
    if (!text.empty() && (text[0] == '+' || text[0] == '-')) {
        negative = text[0] == '-';
        text.remove_prefix(1);
    }
    if (text.empty()) return std::nullopt;
    std::uint64_t magnitude = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
    if (ec != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    constexpr auto max = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    if (negative) {
        if (magnitude > max + 1) return std::nullopt;
        return static_cast<std::int64_t>(0 - magnitude);
    }
    if (magnitude > max) return std::nullopt;
    return static_cast<std::int64_t>(magnitude);
}

// The second space-separated field of the status line; 0 when it is missing
// or not a decimal number.
std::int64_t statusCode(std::string_view statusLine) {
    int field = 0;
    std::size_t i = 0;
    while (i < statusLine.size()) {
        if (statusLine[i] == ' ') {
            ++i;
            continue;
        }
        const std::size_t end = std::min(statusLine.find(' ', i), statusLine.size());
        if (++field == 2) return parseInteger(statusLine.substr(i, end - i), 10).value_or(0);
        i = end;
    }
    return 0;
}

bool isChunkedHeader(std::string_view line) {
    std::string lower(line);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return lower.starts_with("transfer-encoding:") && lower.find("chunked") != std::string::npos;
}

Error malformed() { return PublicIPError::malformed().toError(); }

// The head and the body of a response, split at the first empty line.
struct Split {
    std::string_view head;
    std::span<const std::uint8_t> body;
};

std::optional<Split> splitResponse(std::span<const std::uint8_t> response) {
    const std::string_view text = asText(response);
    const auto headerEnd = text.find(kHeaderEnd);
    if (headerEnd == std::string_view::npos) return std::nullopt;
    return Split{text.substr(0, headerEnd), response.subspan(headerEnd + kHeaderEnd.size())};
}

// Calls `use` with each line of the head, the status line included, until it returns true.
template <class Use>
bool anyHeadLine(std::string_view head, Use use) {
    for (std::size_t start = 0; start <= head.size();) {
        const std::size_t end = std::min(head.find(kCRLF, start), head.size());
        if (use(head.substr(start, end - start))) return true;
        start = end + kCRLF.size();
    }
    return false;
}

bool isChunked(std::string_view head) { return anyHeadLine(head, isChunkedHeader); }

bool startsWithName(std::string_view line, std::string_view lowerName) {
    if (line.size() < lowerName.size()) return false;
    for (std::size_t i = 0; i < lowerName.size(); ++i) {
        const auto c = static_cast<unsigned char>(line[i]);
        if ((c >= 'A' && c <= 'Z' ? c + 32 : c) != static_cast<unsigned char>(lowerName[i])) return false;
    }
    return true;
}

// The one length every Content-Length header of the head declares; nothing
// when there is none, when one is not a plain decimal number, or when two
// disagree (the body's end is then unknown).
std::optional<std::uint64_t> declaredLength(std::string_view head) {
    constexpr std::string_view kName = "content-length:";
    std::optional<std::uint64_t> length;
    const bool unusable = anyHeadLine(head, [&](std::string_view line) {
        if (!startsWithName(line, kName)) return false;
        std::string_view value = line.substr(kName.size());
        const auto first = value.find_first_not_of(" \t");
        const auto last = value.find_last_not_of(" \t");
        value = first == std::string_view::npos ? std::string_view{} : value.substr(first, last - first + 1);
        std::uint64_t parsed = 0;
        const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), parsed, 10);
        if (value.empty() || ec != std::errc{} || end != value.data() + value.size()) return true;
        if (length && *length != parsed) return true;
        length = parsed;
        return false;
    });
    return unusable ? std::nullopt : length;
}

struct Dechunked {
    Bytes data;
    bool lastChunkSeen = false;
};

Result<Dechunked> dechunkBody(std::span<const std::uint8_t> body) {
    Dechunked output;
    std::span<const std::uint8_t> rest = body;
    for (;;) {
        const std::string_view text = asText(rest);
        const auto lineEnd = text.find(kCRLF);
        // A missing final chunk is tolerated: the server's close ends the body.
        if (lineEnd == std::string_view::npos) return output;
        std::string_view sizeText = text.substr(0, lineEnd);
        const auto firstPiece = sizeText.find_first_not_of(';');
        if (firstPiece == std::string_view::npos) return malformed();
        sizeText = sizeText.substr(firstPiece);
        sizeText = sizeText.substr(0, sizeText.find(';'));
        const auto size = parseInteger(sizeText, 16);
        if (!size || *size < 0) return malformed();
        if (*size == 0) {  // trailers are ignored
            output.lastChunkSeen = true;
            return output;
        }

        const auto data = rest.subspan(lineEnd + kCRLF.size());
        if (data.size() < static_cast<std::uint64_t>(*size)) return malformed();
        const auto length = static_cast<std::size_t>(*size);
        output.data.insert(output.data.end(), data.begin(), data.begin() + static_cast<std::ptrdiff_t>(length));
        // The two bytes after the data are skipped unchecked.
        const auto after = data.subspan(length);
        rest = after.size() < 2 ? std::span<const std::uint8_t>{} : after.subspan(2);
    }
}

}  // namespace

Result<Bytes> get(std::string_view url, IPVersion version, const AttemptOptions& options) {
    auto parsed = parseLookupURL(url);
    if (!parsed) return parsed.error();
    StreamConnector& connector = options.connector ? *options.connector : systemStreamConnector();
    const StreamTarget target{parsed->host, parsed->port, version, parsed->tls};
    auto stream = connector.open(target, options.timeout, options.cancellation);
    if (!stream) return stream.error();
    auto response = PublicIPService::exchange(**stream, requestText(*parsed));
    if (!response) return response.error();
    return parseHTTP(*response);
}

Result<Bytes> exchange(ByteStream& stream, std::string_view request) {
    const auto* requestBytes = reinterpret_cast<const std::uint8_t*>(request.data());
    if (auto sent = stream.sendAll({requestBytes, request.size()}); !sent) return sent.error();
    Bytes response;
    Bytes chunk(kReadSize);
    for (;;) {
        auto received = stream.receive(chunk);
        if (!received) {
            if (received.error() == closedWithoutNotifyError() && isProvablyWhole(response)) return response;
            return received.error();
        }
        if (*received == 0) return response;
        response.insert(response.end(), chunk.begin(), chunk.begin() + static_cast<std::ptrdiff_t>(*received));
        // The rest of an oversized response is never read.
        if (response.size() > kResponseCap) return response;
    }
}

Result<Bytes> parseHTTP(std::span<const std::uint8_t> response) {
    const auto split = splitResponse(response);
    if (!split) return malformed();
    const std::string_view statusLine = split->head.substr(0, split->head.find(kCRLF));
    const std::int64_t status = statusCode(statusLine);
    if (status < 200 || status > 299) return PublicIPError::http(status).toError();
    if (isChunked(split->head)) return dechunk(split->body);
    return Bytes(split->body.begin(), split->body.end());
}

Result<Bytes> dechunk(std::span<const std::uint8_t> body) {
    auto dechunked = dechunkBody(body);
    if (!dechunked) return dechunked.error();
    return std::move(dechunked->data);
}

bool isProvablyWhole(std::span<const std::uint8_t> response) {
    const auto split = splitResponse(response);
    if (!split) return false;
    // Chunked coding wins over a length, as it does when the body is read.
    if (isChunked(split->head)) {
        const auto dechunked = dechunkBody(split->body);
        return dechunked && dechunked->lastChunkSeen;
    }
    const auto length = declaredLength(split->head);
    return length && split->body.size() >= *length;
}

}  // namespace netvane::PublicIPService
