#include "daemon/pairing_store.h"

namespace netvane {

const char* const PairingStore::kDefaultDirectory = "/Library/Application Support/NetvaneAdmin";

}  // namespace netvane
