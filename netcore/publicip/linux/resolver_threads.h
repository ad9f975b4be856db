// The threads that resolve names for the socket connector.
//
// A resolution may take as long as the system's resolver likes; its attempt
// stops waiting at the attempt's deadline, but the thread stays with the
// resolution until it returns. A thread that finishes waits a while
// (kResolverIdleLifetime) for the next resolution before it ends, so that a
// process that looks up many times does not start a thread for each; a
// resolution that finds no thread waiting starts one. Thread-safe; the
// threads and their shared state live until the process ends.
#pragma once

#include <chrono>
#include <functional>

namespace netvane {

inline constexpr std::chrono::seconds kResolverIdleLifetime{5};

// Runs `job` on a waiting thread or a new one; false when no thread could be
// started (the job is then dropped).
bool runOnResolverThread(std::function<void()> job);

}  // namespace netvane
