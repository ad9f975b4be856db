// Pairs once in the store at argv[1] and says how that went, for a driver
// that runs it with faults injected into the system calls of its save. The
// report is written with writev(2), which no injected fault touches.
#include <sys/uio.h>
#include <unistd.h>

#include <string>

#include "daemon/pairing_store.h"

namespace {

void report(const std::string& line) {
    iovec piece{const_cast<char*>(line.data()), line.size()};
    (void)!::writev(STDOUT_FILENO, &piece, 1);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    auto store = netvane::PairingStore::load(argv[1]);
    if (!store) {
        report("load " + store.error().message + "\n");
        return 2;
    }
    auto token = store->pair(501);
    if (token) {
        report("ok\n");
    } else {
        report("error " + token.error().domain + " " + std::to_string(token.error().code) + " " +
               token.error().message + "\n");
    }
    return 0;
}
