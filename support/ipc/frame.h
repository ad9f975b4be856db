// The wire format of the daemon's IPC: length-prefixed binary property lists.
//
// A frame is a 4-byte big-endian length followed by that many bytes of a
// binary property list whose root is a dictionary:
//   call:  {"call": selector, "seq": n, "args": [slot...]}
//   reply: {"seq": n, "reply": [slot...]}
//   or, for a call its session dropped unanswered, {"seq": n, "dropped": true}
// A slot is {} for nil, {"value": v} for a value, and (replies only)
// {"error": {"domain": s, "code": i, "description": s}} for an error, so nil
// stays distinct from every value, the empty string included.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "support/plist/value.h"
#include "support/result.h"

namespace netvane::ipc {

inline constexpr const char* kIpcErrorDomain = "netvane.ipc";
// Larger frames close the connection: no call or reply of ours comes near it,
// and it bounds what one peer can make us buffer.
inline constexpr std::size_t kMaxFrameBytes = std::size_t{1} << 20;
inline constexpr std::size_t kFrameHeaderBytes = 4;
// A call decodes to at most this many bytes per frame byte, plus the slack
// that the fixed overhead of a small call needs, and to at most this many
// objects: our calls carry three arguments at most, so a frame built to
// expand shared objects, or to hold many tiny ones, is refused before it
// costs more than a few times its own size.
inline constexpr std::size_t kCallExpansionFactor = 4;
inline constexpr std::size_t kCallExpansionSlack = 16 * 1024;
inline constexpr std::size_t kMaxCallObjects = 256;

using Argument = std::optional<plist::Value>;  // nullopt is nil
using ReplySlot = std::variant<std::monostate, plist::Value, Error>;

struct Call {
    std::string selector;
    std::uint64_t seq = 0;
    std::vector<Argument> args;

    bool operator==(const Call&) const = default;
};

struct Reply {
    std::uint64_t seq = 0;
    std::vector<ReplySlot> values;
    bool dropped = false;  // no answer will come; values are empty

    bool operator==(const Reply&) const = default;
};

// Encoded frames include the 4-byte length.
Result<std::vector<std::uint8_t>> encodeCall(const Call& call);
Result<std::vector<std::uint8_t>> encodeReply(const Reply& reply);
// Decoders take the frame body, without the length. A call must carry
// exactly its three keys, within the limits above; arguments are moved out
// of the decoded document, never copied.
Result<Call> decodeCall(std::span<const std::uint8_t> body);
Result<Reply> decodeReply(std::span<const std::uint8_t> body);

// The body length announced by a frame header; an error beyond kMaxFrameBytes.
Result<std::size_t> frameBodyLength(const std::uint8_t (&header)[kFrameHeaderBytes]);

}  // namespace netvane::ipc
