// macOS: the C library's address list as it stands. Its socket addresses
// carry their own length, its interface flags are the shared names' layout,
// and it names every entry after its interface; it brings no kernel facts,
// so the reader asks the shim for each.
#include "netcore/interfaces/platform_address_list.h"

#include <ifaddrs.h>
#include <sys/socket.h>

namespace netvane {

std::size_t netmaskLength(const sockaddr* netmask, int /*family*/) { return netmask->sa_len; }

std::uint32_t interfaceFlagsFromEntry(unsigned int entryFlags) { return entryFlags; }

std::string_view interfaceNameOf(std::string_view entryName) { return entryName; }

struct AddressList::State {
    ifaddrs* list = nullptr;

    State() = default;
    State(const State&) = delete;
    State& operator=(const State&) = delete;
    ~State() {
        if (list != nullptr) ::freeifaddrs(list);
    }
};

AddressList::AddressList() = default;
AddressList::AddressList(std::unique_ptr<State> state) : state_(std::move(state)) {}
AddressList::AddressList(AddressList&&) noexcept = default;
AddressList& AddressList::operator=(AddressList&&) noexcept = default;
AddressList::~AddressList() = default;

AddressList AddressList::read(int /*sock*/) {
    auto state = std::make_unique<State>();
    if (::getifaddrs(&state->list) != 0) state->list = nullptr;
    return AddressList(std::move(state));
}

const ifaddrs* AddressList::entries() const { return state_ ? state_->list : nullptr; }

const KernelFacts* AddressList::facts(std::string_view /*name*/) const { return nullptr; }

std::optional<std::uint32_t> AddressList::in6Flags(const ifaddrs& /*entry*/) const { return std::nullopt; }

}  // namespace netvane
