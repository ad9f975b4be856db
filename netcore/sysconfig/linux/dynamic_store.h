// The Linux dynamic store (keys and values: store_view.h) with the knobs
// that tests and benchmarks turn; systemDynamicStores() is this with the
// defaults.
//
// Copies read the kernel afresh each time; what NetworkManager holds is
// read once and kept until NetworkManager signals a change, so that the many
// copies of one reading cost one load. Notifications come from a
// ChangeMonitor that runs while the store is attached to a queue.
#pragma once

#include <memory>

#include "netcore/sysconfig/dynamic_store.h"
#include "netcore/sysconfig/linux/change_monitor.h"

namespace netvane {

std::unique_ptr<DynamicStoreFactory> makeLinuxDynamicStores(ChangeMonitor::Options options);

}  // namespace netvane
