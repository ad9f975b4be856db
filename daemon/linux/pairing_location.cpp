#include "daemon/pairing_store.h"

namespace netvane {

const char* const PairingStore::kDefaultDirectory = "/var/lib/netvane-admin";

}  // namespace netvane
