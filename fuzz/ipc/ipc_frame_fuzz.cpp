// Any frame body a peer can send: decoding never crashes, and whatever decodes
// as a call or a reply encodes back to a frame that decodes to the same thing.
#include <cstdlib>

#include "support/ipc/frame.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace netvane::ipc;
    const std::span<const std::uint8_t> body(data, size);
    if (auto call = decodeCall(body)) {
        auto frame = encodeCall(*call);
        if (frame && decodeCall(std::span(*frame).subspan(kFrameHeaderBytes)).value() != *call) {
            // NaN arguments compare unequal to themselves; anything else is a bug.
            if (encodeCall(decodeCall(std::span(*frame).subspan(kFrameHeaderBytes)).value()).value() != *frame) {
                std::abort();
            }
        }
    }
    if (auto reply = decodeReply(body)) {
        auto frame = encodeReply(*reply);
        if (frame && encodeReply(decodeReply(std::span(*frame).subspan(kFrameHeaderBytes)).value()).value() != *frame) {
            std::abort();
        }
    }
    return 0;
}
