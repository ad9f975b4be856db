// The two protocols of the admin daemon as one table of selectors, shared by
// the transport (which accepts exactly these calls and checks every argument)
// and by clients. Reply dictionary keys live here too.
//
// Every method answers exactly once through its reply; the reply's values are
// listed in `reply`. A value that "may be nil" is optional on the wire.
#pragma once

#include <string_view>

#include "support/ipc/protocol_description.h"

namespace netvane {

namespace AdminStatusKey {
inline constexpr std::string_view version = "version";
inline constexpr std::string_view protocolVersion = "protocol";  // not "protocolVersion"
inline constexpr std::string_view paired = "paired";
}  // namespace AdminStatusKey

namespace TunnelOwnerKey {
inline constexpr std::string_view interface = "interface";
inline constexpr std::string_view name = "name";
inline constexpr std::string_view pid = "pid";
inline constexpr std::string_view path = "path";
}  // namespace TunnelOwnerKey

namespace PendingPairingKey {
inline constexpr std::string_view id = "id";
inline constexpr std::string_view created = "created";
}  // namespace PendingPairingKey

namespace detail {
using W = WireType;
inline constexpr W kOptionalString[] = {W::optionalString};
inline constexpr W kString[] = {W::string};
inline constexpr W kDictionary[] = {W::dictionary};
inline constexpr W kDictionaryArray[] = {W::dictionaryArray};
inline constexpr W kOptionalError[] = {W::optionalError};
inline constexpr W kStringOrNilAndError[] = {W::optionalString, W::optionalError};
inline constexpr W kSetServiceArguments[] = {W::string, W::boolean, W::string};
inline constexpr W kApproveArguments[] = {W::string, W::data};
inline constexpr W kData[] = {W::data};

inline constexpr MethodDescription kAppMethods[] = {
    {"statusWithToken:reply:", kOptionalString, kDictionary},
    {"beginPairingWithReply:", {}, kStringOrNilAndError},
    {"awaitPairingWithRequestID:reply:", kString, kStringOrNilAndError},
    {"setServiceEnabledWithServiceID:enabled:token:reply:", kSetServiceArguments, kOptionalError},
    {"unpairWithToken:reply:", kString, kOptionalError},
    {"tunnelOwnersWithReply:", {}, kDictionaryArray},
};

inline constexpr MethodDescription kControlMethods[] = {
    {"statusWithReply:", {}, kDictionary},
    {"pendingPairingsWithReply:", {}, kDictionaryArray},
    {"approvePairingWithRequestID:authorization:reply:", kApproveArguments, kOptionalError},
    {"denyPairingWithRequestID:reply:", kString, kOptionalError},
    {"unpairAllWithAuthorization:reply:", kData, kOptionalError},
};
}  // namespace detail

inline constexpr ProtocolDescription AdminAppProtocol{"AdminAppProtocol", detail::kAppMethods};
inline constexpr ProtocolDescription AdminControlProtocol{"AdminControlProtocol", detail::kControlMethods};

}  // namespace netvane
