// How `netvane admin` reaches the daemon and proves the pair right on this
// platform: one implementation per OS (linux/, darwin/).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "admin_protocol/admin_clients.h"
#include "command.h"

namespace netvane::cli::AdminTransport {

// The transport's options as synopsis words (with a trailing space, or
// empty), and a line about where the daemon is. Constant-initialised, so
// they can be read while commands register.
extern const std::string_view optionsSynopsis;
extern const std::string_view whereNote;

// Where the daemon is, as set by the transport's options; empty means the
// platform's usual place. A transport that connects at once gives up after
// `deadline`, when there is one.
struct Endpoint {
    std::string location;
    ReplyDeadline deadline;
};

// Takes the transport option at args[i] with its value, moving i to the
// value; false (i untouched) when args[i] is none of the transport's.
bool takeOption(const Args& args, std::size_t& i, Endpoint& endpoint);

Result<AdminAppClient> connectApp(const Endpoint& endpoint);
Result<AdminControlClient> connectControl(const Endpoint& endpoint);

// An authorization that this process obtained, for the daemon to check. Keep
// it until the daemon has answered: its external form refers to it.
class PairRight {
public:
    virtual ~PairRight() = default;
    virtual std::span<const std::uint8_t> externalForm() const = 0;
};

// Obtains the pair right in this process, asking the user where the system
// wants to. A right that was refused still yields an authorization, with a
// note on stderr: the daemon's own check decides. Fails only when no
// authorization can be made at all.
Result<std::unique_ptr<PairRight>> obtainPairRight();

}  // namespace netvane::cli::AdminTransport
