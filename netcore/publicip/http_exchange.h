// The minimal HTTP/1.1 client under the public-IP lookup: one GET over one IP
// family, read until the server closes, then the body and its address.
//
// Under TLS only close_notify proves that the server closed: a bare close
// may come from anyone on the path. Such a close still ends an answer whose
// body is provably whole (its Content-Length all there, or its last chunk
// seen); any other answer it ends is a receive error. The length is used
// for nothing else.
//
// Internal to the lookup; exposed for tests and fuzzers. The parsers are pure
// functions of their input and safe on any bytes; `get` blocks for at most its
// timeout.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "netcore/publicip/byte_stream.h"
#include "netcore/publicip/public_ip.h"
#include "support/result.h"

namespace netvane::PublicIPService {

using Bytes = std::vector<std::uint8_t>;

// IMPORTANT: outside input reaches these limits. One read never asks for more
// than kReadSize bytes; reading stops once the response holds more than
// kResponseCap bytes, so a server that never closes cannot grow it further.
inline constexpr std::size_t kReadSize = 65'536;
inline constexpr std::size_t kResponseCap = 1'000'000;

struct LookupURL {
    bool tls = false;
    std::string host;     // as written, brackets of an IPv6 literal removed
    std::uint16_t port = 0;
    std::string target;   // path (at least "/") and "?query", percent-encoded as given

    bool operator==(const LookupURL&) const = default;
};

// Accepts absolute "http" and "https" URLs with a host; anything else is `badURL`.
Result<LookupURL> parseLookupURL(std::string_view url);

// The exact bytes sent: GET, Host (never with the port), User-Agent, Accept, Connection: close.
std::string requestText(const LookupURL& url);

struct AttemptOptions {
    std::chrono::milliseconds timeout = kAttemptTimeout;
    StreamConnector* connector = nullptr;  // systemStreamConnector() when null
    const Cancellation* cancellation = nullptr;
};

// One GET over `version`: the decoded body, or why the attempt failed.
Result<Bytes> get(std::string_view url, IPVersion version, const AttemptOptions& options = {});

// Sends the request and reads until the peer closes or more than kResponseCap
// bytes have arrived; a close without close_notify ends only a provably whole
// response.
Result<Bytes> exchange(ByteStream& stream, std::string_view request);

// Whether the response's own framing shows that all of it arrived: a body of
// at least its declared Content-Length, or a chunked body up to its last
// chunk (trailers need not have come). Anything else, a response without
// either included, is not provably whole.
bool isProvablyWhole(std::span<const std::uint8_t> response);

// Status line, headers and chunked coding; the body as it followed the headers otherwise.
Result<Bytes> parseHTTP(std::span<const std::uint8_t> response);
Result<Bytes> dechunk(std::span<const std::uint8_t> body);

// The address in a plain-text body, else in a JSON body under `jsonKeyPath`
// (dotted) or, without one, under the usual keys.
std::optional<std::string> extractAddress(std::span<const std::uint8_t> body,
                                          const std::optional<std::string>& jsonKeyPath);

}  // namespace netvane::PublicIPService
