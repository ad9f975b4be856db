// The set of paired applications: for each, the SHA-256 digest of the token it
// was given, its user and when it was paired. Tokens themselves are never
// stored. The store persists itself to one binary property-list file after
// every change.
//
// IMPORTANT: not thread-safe. AdminDaemon calls it only under its one lock,
// file writes included.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/date.h"
#include "support/plist/value.h"
#include "support/result.h"

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

    // A store that saves into `directory`/pairings.plist; empty until loaded.
    explicit PairingStore(std::string directory = kDefaultDirectory);

    // Reads the file; on any failure (missing, unreadable, corrupt) the store
    // starts empty. Never writes.
    static PairingStore load(std::string directory = kDefaultDirectory);

    static std::vector<std::uint8_t> digest(std::string_view token);

    // Checks every pairing, without stopping early, so timing says nothing
    // about which pairing (if any) matched.
    bool isPaired(std::string_view token, std::uint32_t uid) const;

    // Creates a pairing and returns its 44-character Base64 token. When save
    // fails the pairing stays in memory and the error is returned.
    Result<std::string> pair(std::uint32_t uid);

    // Writes all pairings: directory 0700, atomic file write, file 0600 owned
    // by uid 0. System errors come back unchanged.
    Status save() const;

    std::vector<Pairing> pairings;

    const std::string& directory() const { return directory_; }
    std::string filePath() const;

    // The file's shape: an array of {"digest", "uid", "created"} dictionaries.
    static plist::Value encode(const std::vector<Pairing>& pairings);
    static Result<std::vector<Pairing>> decode(const plist::Value& root);

private:
    std::string directory_;
};

}  // namespace netvane
