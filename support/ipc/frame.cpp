#include "support/ipc/frame.h"

#include "support/plist/plist.h"

namespace netvane::ipc {
namespace {

Error badFrame(std::string what) { return Error{kIpcErrorDomain, 1, "malformed frame: " + what}; }

Result<std::vector<std::uint8_t>> frame(const plist::Value& root) {
    auto body = plist::encodeBinary(root);
    if (!body) return body.error();
    if (body->size() > kMaxFrameBytes) return Error{kIpcErrorDomain, 2, "frame too large"};
    std::vector<std::uint8_t> out(kFrameHeaderBytes + body->size());
    const auto size = static_cast<std::uint32_t>(body->size());
    out[0] = static_cast<std::uint8_t>(size >> 24);
    out[1] = static_cast<std::uint8_t>(size >> 16);
    out[2] = static_cast<std::uint8_t>(size >> 8);
    out[3] = static_cast<std::uint8_t>(size);
    std::copy(body->begin(), body->end(), out.begin() + kFrameHeaderBytes);
    return out;
}

plist::Value slotOf(const Argument& argument) {
    if (!argument) return plist::Dictionary{};
    return plist::Dictionary{{"value", *argument}};
}

plist::Value slotOf(const ReplySlot& slot) {
    if (auto* value = std::get_if<plist::Value>(&slot)) return plist::Dictionary{{"value", *value}};
    if (auto* error = std::get_if<Error>(&slot)) {
        return plist::Dictionary{
            {"error", plist::Dictionary{{"domain", error->domain}, {"code", error->code}, {"description", error->message}}}};
    }
    return plist::Dictionary{};
}

Result<plist::Value> decodeRoot(std::span<const std::uint8_t> body, const plist::DecodeLimits& limits = {}) {
    if (!plist::isBinary(body)) return badFrame("not a binary property list");
    auto root = plist::decodeBinary(body, limits);
    if (!root) return badFrame(root.error().message);
    if (!root->dictionary()) return badFrame("root is not a dictionary");
    return root;
}

Result<std::uint64_t> sequenceOf(const plist::Value& root) {
    const plist::Value* seq = root.find("seq");
    if (!seq || !seq->uint64()) return badFrame("missing sequence number");
    return *seq->uint64();
}

const plist::Array* slotsOf(const plist::Value& root, const char* key) {
    const plist::Value* slots = root.find(key);
    return slots ? slots->array() : nullptr;
}

}  // namespace

Result<std::vector<std::uint8_t>> encodeCall(const Call& call) {
    plist::Array args;
    args.reserve(call.args.size());
    for (const Argument& argument : call.args) args.push_back(slotOf(argument));
    return frame(plist::Dictionary{{"call", call.selector}, {"seq", call.seq}, {"args", std::move(args)}});
}

Result<std::vector<std::uint8_t>> encodeReply(const Reply& reply) {
    if (reply.dropped) return frame(plist::Dictionary{{"seq", reply.seq}, {"dropped", true}});
    plist::Array values;
    values.reserve(reply.values.size());
    for (const ReplySlot& slot : reply.values) values.push_back(slotOf(slot));
    return frame(plist::Dictionary{{"seq", reply.seq}, {"reply", std::move(values)}});
}

Result<Call> decodeCall(std::span<const std::uint8_t> body) {
    const plist::DecodeLimits limits{kCallExpansionFactor, kCallExpansionSlack, kMaxCallObjects};
    auto root = decodeRoot(body, limits);
    if (!root) return root.error();
    plist::Dictionary& dictionary = *root->get<plist::Dictionary>();
    for (const auto& [key, value] : dictionary) {
        if (key != "call" && key != "seq" && key != "args") return badFrame("unknown key " + key);
    }
    Call call;
    plist::Value* selector = dictionary.find("call");
    if (!selector || !selector->string()) return badFrame("missing selector");
    call.selector = std::move(*selector->get<std::string>());
    auto seq = sequenceOf(*root);
    if (!seq) return seq.error();
    call.seq = *seq;
    plist::Value* argsValue = dictionary.find("args");
    plist::Array* args = argsValue ? argsValue->get<plist::Array>() : nullptr;
    if (!args) return badFrame("missing arguments");
    call.args.reserve(args->size());
    for (plist::Value& slot : *args) {
        plist::Dictionary* slotDictionary = slot.get<plist::Dictionary>();
        if (!slotDictionary || slotDictionary->size() > 1) return badFrame("bad argument slot");
        plist::Value* value = slotDictionary->find("value");
        if (!slotDictionary->empty() && !value) return badFrame("bad argument slot");
        call.args.push_back(value ? Argument(std::move(*value)) : std::nullopt);
    }
    return call;
}

Result<Reply> decodeReply(std::span<const std::uint8_t> body) {
    auto root = decodeRoot(body);
    if (!root) return root.error();
    Reply reply;
    auto seq = sequenceOf(*root);
    if (!seq) return seq.error();
    reply.seq = *seq;
    if (const plist::Value* dropped = root->find("dropped")) {
        if (!dropped->boolean() || !*dropped->boolean() || root->find("reply")) return badFrame("bad dropped reply");
        reply.dropped = true;
        return reply;
    }
    const plist::Array* values = slotsOf(*root, "reply");
    if (!values) return badFrame("missing reply values");
    for (const plist::Value& slot : *values) {
        const plist::Dictionary* dictionary = slot.dictionary();
        if (!dictionary || dictionary->size() > 1) return badFrame("bad reply slot");
        if (dictionary->empty()) {
            reply.values.emplace_back(std::monostate{});
        } else if (const plist::Value* value = dictionary->find("value")) {
            reply.values.emplace_back(*value);
        } else if (const plist::Value* error = dictionary->find("error")) {
            const plist::Value* domain = error->find("domain");
            const plist::Value* code = error->find("code");
            const plist::Value* description = error->find("description");
            if (!domain || !domain->string() || !code || !code->int64() || !description || !description->string()) {
                return badFrame("bad error slot");
            }
            reply.values.emplace_back(Error{*domain->string(), *code->int64(), *description->string()});
        } else {
            return badFrame("bad reply slot");
        }
    }
    return reply;
}

Result<std::size_t> frameBodyLength(const std::uint8_t (&header)[kFrameHeaderBytes]) {
    const std::size_t length = (std::size_t{header[0]} << 24) | (std::size_t{header[1]} << 16) |
                               (std::size_t{header[2]} << 8) | header[3];
    if (length > kMaxFrameBytes) return Error{kIpcErrorDomain, 2, "frame too large"};
    if (length == 0) return badFrame("empty frame");
    return length;
}

}  // namespace netvane::ipc
