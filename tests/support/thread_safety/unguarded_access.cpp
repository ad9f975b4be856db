// Touches a member guarded by a mutex without holding it. A Clang build must
// refuse this file: the lock rules written with support/mutex.h hold only as
// long as the analysis runs.
#include "support/mutex.h"

namespace {

class Counter {
public:
    void add() { ++count_; }

private:
    netvane::Mutex mutex_;
    int count_ NV_GUARDED_BY(mutex_) = 0;
};

}  // namespace

int unguardedAccess() {
    Counter counter;
    counter.add();
    return 0;
}
