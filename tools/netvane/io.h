// Where every command's bytes come from and go to.
//
// Standard output goes through one buffer (print, printFormatted) that
// notes the first failure. A reader that went away (EPIPE) ends the output
// quietly; any other failure (a full disk, an I/O error) is reported once by
// finishOutput and makes the exit status 1. A write cut short by one of the
// ending signals (see stopOnEndingSignals) ends the output without a report.
// Live commands flush after each reading and stop when the output has ended.
//
// Files named on the command line: "-" is standard input or output; an
// input must be a regular file, read only up to the cap the command gives
// (a larger one is refused before a byte is read); an output is replaced
// whole through writeFileAtomically (a regular file keeps its mode and
// owner, a link is followed, a directory or a block device is refused),
// except a FIFO or a character device (/dev/null, /dev/stdout, a named
// pipe), which is written into as a shell redirection would.
//
// Not thread-safe: a command that prints from another thread (watch-config,
// from its watcher's queue) holds one lock around every call here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "support/result.h"

namespace netvane::cli {

void print(std::string_view text);
void printFormatted(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Sends what is buffered on its way; false once the output has ended.
bool flushOutput();
// Whether output still reaches its reader.
bool outputOpen();
// Flushes, reports a failure other than a vanished reader, and gives the
// exit status: `status`, or kExitFailure when output failed.
int finishOutput(int status);

// The whole of FILE ("-": standard input), at most maxBytes of it (EFBIG
// beyond). Errors name the file.
Result<std::vector<std::uint8_t>> readInput(const std::string& file, std::size_t maxBytes);
// How the messages call FILE: "standard input" for "-".
std::string inputName(const std::string& file);

// FILE ("-": standard output) holds `bytes` afterwards, or is as it was.
Status writeOutput(const std::string& file, std::span<const std::uint8_t> bytes);
Status writeOutput(const std::string& file, std::string_view text);

}  // namespace netvane::cli
