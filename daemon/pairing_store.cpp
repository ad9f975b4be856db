#include "daemon/pairing_store.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <limits>

#include "admin_protocol/token_digest.h"
#include "support/base64.h"
#include "support/crypto.h"
#include "support/files.h"
#include "support/plist/plist.h"

namespace netvane {
namespace {

constexpr std::size_t kTokenBytes = 32;
// A pairing file holds a few dozen entries at most; this bound only keeps a
// corrupt or hostile file from being read whole into memory.
constexpr std::size_t kMaxFileBytes = 64 << 20;

Error badFile(const char* what) { return Error{plist::kPlistErrorDomain, 4, std::string("pairing file: ") + what}; }

Result<std::vector<PairingStore::Pairing>> pairingsIn(const Result<Bytes>& bytes) {
    if (!bytes) return bytes.error();
    auto root = plist::decode(*bytes);
    if (!root) return root.error();
    return PairingStore::decode(*root);
}

}  // namespace

PairingStore::PairingStore(std::string directory, std::shared_ptr<const UniqueFd> directoryFd)
    : directory_(std::move(directory)), directoryFd_(std::move(directoryFd)) {}

std::string PairingStore::filePath() const { return directory_ + "/" + kFileName; }

Result<PairingStore> PairingStore::open(const std::string& directory) {
    if (auto made = createDirectories(directory, 0700); !made.ok()) return made.error();
    UniqueFd fd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) return posixError(errno, "open " + directory);
    return PairingStore(directory, std::make_shared<const UniqueFd>(std::move(fd)));
}

Result<PairingStore> PairingStore::load(const std::string& directory, std::optional<Unreadable>* unreadable) {
    auto store = open(directory);
    if (!store) return store.error();
    const std::string path = store->filePath();
    auto bytes = readFileAt(store->directoryFd_->get(), kFileName, kMaxFileBytes, path);
    if (!bytes && bytes.error().domain == kPosixErrorDomain && bytes.error().code == ENOENT) return store;
    auto decoded = pairingsIn(bytes);
    if (decoded) {
        store->pairings = std::move(*decoded);
        return store;
    }
    // What the file held is kept for whoever can repair it; the next save
    // then writes a file of its own beside it.
    auto kept = keepAsideAt(store->directoryFd_->get(), kFileName, 0600);
    if (!kept) {
        return Error{kept.error().domain, kept.error().code,
                     path + " cannot be read (" + decoded.error().message + ") nor kept aside (" +
                         kept.error().message + "); refusing to overwrite it"};
    }
    if (unreadable) *unreadable = Unreadable{path, decoded.error(), *kept};
    return store;
}

std::string PairingStore::Unreadable::describe() const {
    return "the pairing file " + file + " could not be read (" + problem.message + "); kept aside as " + keptAs +
           ", starting with no pairings";
}

std::vector<std::uint8_t> PairingStore::digest(std::string_view token) {
    const Sha256Digest d = sha256(std::span(reinterpret_cast<const std::uint8_t*>(token.data()), token.size()));
    return {d.begin(), d.end()};
}

bool PairingStore::isPaired(std::string_view token, std::uint32_t uid) const {
    const std::vector<std::uint8_t> d = digest(token);
    bool paired = false;
    for (const Pairing& pairing : pairings) {
        // Bitwise operators on purpose: no short circuit, no early exit.
        paired = paired | ((pairing.uid == uid) & TokenDigest::equal(pairing.digest, d));
    }
    return paired;
}

Result<std::string> PairingStore::pair(std::uint32_t uid) {
    std::array<std::uint8_t, kTokenBytes> bytes{};
    if (!secureRandomBytes(bytes).ok()) {
        // Callers see the generic file-write error here, whatever the generator said.
        return Error{kCocoaErrorDomain, kCocoaFileWriteUnknownError,
                     "The file couldn\xE2\x80\x99t be saved."};
    }
    std::string token = base64Encode(bytes);
    pairings.push_back(Pairing{digest(token), uid, Date::now()});
    if (auto saved = save(); !saved.ok()) return saved.error();
    return token;
}

Status PairingStore::save() const {
    auto bytes = plist::encodeBinary(encode(pairings));
    if (!bytes) return bytes.error();
    return writeFileAtomicallyAt(directoryFd_->get(), kFileName, *bytes, 0600, FileOwner{0, 0}, filePath());
}

Status PairingStore::removeLeftovers() const {
    return removeAtomicWriteLeftoversAt(directoryFd_->get(), kFileName, filePath());
}

plist::Value PairingStore::encode(const std::vector<Pairing>& pairings) {
    plist::Array array;
    array.reserve(pairings.size());
    for (const Pairing& pairing : pairings) {
        array.emplace_back(plist::Dictionary{
            {"digest", plist::Data(pairing.digest)},
            {"uid", pairing.uid},
            {"created", pairing.created},
        });
    }
    return array;
}

Result<std::vector<PairingStore::Pairing>> PairingStore::decode(const plist::Value& root) {
    const plist::Array* array = root.array();
    if (!array) return badFile("root is not an array");
    std::vector<Pairing> pairings;
    pairings.reserve(array->size());
    for (const plist::Value& entry : *array) {
        const plist::Value* digestValue = entry.find("digest");
        const plist::Value* uidValue = entry.find("uid");
        const plist::Value* createdValue = entry.find("created");
        if (!digestValue || !uidValue || !createdValue) return badFile("entry lacks a required key");
        const plist::Data* digest = digestValue->data();
        const auto uid = uidValue->uint64();
        const auto created = createdValue->date();
        if (!digest || !uid || *uid > std::numeric_limits<std::uint32_t>::max() || !created) {
            return badFile("entry has a value of the wrong type");
        }
        pairings.push_back(Pairing{*digest, static_cast<std::uint32_t>(*uid), *created});
    }
    return pairings;
}

}  // namespace netvane
