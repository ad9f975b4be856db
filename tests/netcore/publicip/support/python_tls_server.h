// Python's own HTTPS server (python_tls_server.py beside this file) in a
// child process, for checking the lookup against a TLS stack other than the
// one it uses: that server closes without close_notify.
//
// The constructor writes the identity to a temporary directory, starts the
// server and reads its port; the destructor closes its standard input and
// waits for it. Throws when Python or the server cannot start.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "tests/netcore/publicip/support/test_ca.h"
#include "tests/temporary_directory.h"

namespace netvane::testing {

class PythonTLSServer {
public:
    explicit PythonTLSServer(const TLSIdentity& identity);
    ~PythonTLSServer();
    PythonTLSServer(const PythonTLSServer&) = delete;
    PythonTLSServer& operator=(const PythonTLSServer&) = delete;

    std::uint16_t port() const { return port_; }

private:
    void stop();

    TemporaryDirectory files_{"netvane-python-tls"};
    pid_t pid_ = -1;
    int input_ = -1;  // the server's standard input
    std::uint16_t port_ = 0;
};

}  // namespace netvane::testing
