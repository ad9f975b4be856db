// The set of paired applications: for each, the SHA-256 digest of the token it
// was given, its user and when it was paired. Tokens themselves are never
// stored. The store persists itself to one binary property-list file after
// every change, always through the state directory it opened at start: a
// directory put in its place later never receives the file.
//
// Nothing is lost to a file that cannot be read: it is kept aside, renamed
// beside itself (mode 0600), before the store starts empty.
//
// IMPORTANT: not thread-safe. AdminDaemon calls it only under its one lock,
// file writes included.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/date.h"
#include "support/plist/value.h"
#include "support/result.h"
#include "support/unique_fd.h"

namespace netvane {

class PairingStore {
public:
    struct Pairing {
        std::vector<std::uint8_t> digest;  // SHA-256 of the token's Base64 text
        std::uint32_t uid = 0;
        Date created;

        bool operator==(const Pairing&) const = default;
    };

    // The platform's place for the file (set in the OS folder).
    static const char* const kDefaultDirectory;
    static constexpr const char* kFileName = "pairings.plist";

    // What load() found besides pairings: why the file could not be used,
    // and the name it was kept aside under.
    struct Unreadable {
        std::string file;
        Error problem;
        std::string keptAs;

        // The line for the log.
        std::string describe() const;
    };

    // An empty store on `directory`, created with mode 0700 when missing,
    // and held open from now on. Fails when it cannot be made or opened.
    static Result<PairingStore> open(const std::string& directory);
    // The same, with the file's pairings. A missing file gives an empty
    // store; one that cannot be read or decoded is kept aside and the store
    // starts empty, with `unreadable` saying so. Fails, rather than start
    // with a file that the next save would overwrite, when that file cannot
    // be kept aside.
    static Result<PairingStore> load(const std::string& directory, std::optional<Unreadable>* unreadable = nullptr);

    static std::vector<std::uint8_t> digest(std::string_view token);

    // Checks every pairing, without stopping early, so timing says nothing
    // about which pairing (if any) matched.
    bool isPaired(std::string_view token, std::uint32_t uid) const;

    // Creates a pairing and returns its 44-character Base64 token. When save
    // fails the pairing stays in memory and the error is returned.
    Result<std::string> pair(std::uint32_t uid);

    // Writes all pairings: atomic file write in the held directory, file 0600
    // owned by uid 0, both set on the new file before it takes the name.
    // System errors keep their domain and code; their text names the file.
    Status save() const;

    // Removes the temporary files that a save interrupted by a crash or a
    // kill left in the directory (only those). Run once at start-up.
    Status removeLeftovers() const;

    std::vector<Pairing> pairings;

    const std::string& directory() const { return directory_; }
    std::string filePath() const;

    // The file's shape: an array of {"digest", "uid", "created"} dictionaries.
    static plist::Value encode(const std::vector<Pairing>& pairings);
    static Result<std::vector<Pairing>> decode(const plist::Value& root);

private:
    PairingStore(std::string directory, std::shared_ptr<const UniqueFd> directoryFd);

    std::string directory_;
    // Shared by copies: the store is a plain value.
    std::shared_ptr<const UniqueFd> directoryFd_;
};

}  // namespace netvane
