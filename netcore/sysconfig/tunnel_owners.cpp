#include "netcore/sysconfig/tunnel_owners.h"

#include <array>
#include <cstdlib>
#include <string_view>
#include <vector>

namespace netvane {
namespace {

constexpr std::array<std::string_view, 3> kSystemPrefixes = {"/System/", "/usr/", "/Library/Apple/"};
constexpr std::array<std::string_view, 4> kBundleSuffixes = {".app", ".appex", ".systemextension", ".xpc"};

std::string lastPathComponent(std::string_view path) {
    if (path.empty()) return "";
    std::size_t end = path.find_last_not_of('/');
    if (end == std::string_view::npos) return "/";
    std::string_view trimmed = path.substr(0, end + 1);
    std::size_t slash = trimmed.rfind('/');
    return std::string(slash == std::string_view::npos ? trimmed : trimmed.substr(slash + 1));
}

// A leading dot starts a name, not an extension.
std::string deletingPathExtension(std::string_view component) {
    std::size_t dot = component.rfind('.');
    if (dot == std::string_view::npos || dot == 0) return std::string(component);
    return std::string(component.substr(0, dot));
}

std::vector<std::string_view> components(std::string_view path) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t slash = path.find('/', start);
        if (slash == std::string_view::npos) slash = path.size();
        if (slash > start) parts.push_back(path.substr(start, slash - start));
        start = slash + 1;
    }
    return parts;
}

const std::string* stringValue(const plist::Dictionary& info, std::string_view key) {
    const plist::Value* value = info.find(key);
    return value != nullptr ? value->string() : nullptr;
}

}  // namespace

plist::Value TunnelOwner::encode() const {
    return plist::Dictionary{{"pid", static_cast<std::int64_t>(pid)}, {"name", name}, {"path", path}};
}

Result<TunnelOwner> TunnelOwner::decode(const plist::Value& value) {
    auto invalid = [](const char* what) {
        return Error{"netvane.tunnels", 1, std::string("tunnel owner: ") + what};
    };
    const plist::Dictionary* dictionary = value.dictionary();
    if (dictionary == nullptr) return invalid("not a dictionary");
    const plist::Value* pid = dictionary->find("pid");
    const std::string* name = stringValue(*dictionary, "name");
    const std::string* path = stringValue(*dictionary, "path");
    if (pid == nullptr || !pid->int64() || *pid->int64() < INT32_MIN || *pid->int64() > INT32_MAX) {
        return invalid("pid missing or not a 32-bit integer");
    }
    if (name == nullptr || path == nullptr) return invalid("name or path missing");
    return TunnelOwner{static_cast<std::int32_t>(*pid->int64()), *name, *path};
}

std::string TunnelOwners::displayName(const std::string& path, const BundleInformation& bundles) {
    std::string base = lastPathComponent(path);
    for (std::string_view prefix : kSystemPrefixes) {
        if (path.starts_with(prefix)) return base;
    }
    std::vector<std::string_view> parts = components(path);
    if (parts.empty()) return base;

    // Outermost application first, so that an extension inside an application
    // shows as the application; otherwise the innermost bundle of any kind.
    std::optional<std::size_t> chosen;
    for (std::size_t i = 0; i < parts.size() && !chosen; ++i) {
        if (parts[i].ends_with(".app")) chosen = i;
    }
    for (std::size_t i = parts.size(); i-- > 0 && !chosen;) {
        for (std::string_view suffix : kBundleSuffixes) {
            if (parts[i].ends_with(suffix)) {
                chosen = i;
                break;
            }
        }
    }
    if (!chosen) return base;

    std::string bundlePath;
    for (std::size_t i = 0; i <= *chosen; ++i) {
        bundlePath += '/';
        bundlePath += parts[i];
    }
    if (std::optional<plist::Dictionary> info = bundles.infoDictionary(bundlePath)) {
        if (const std::string* displayName = stringValue(*info, "CFBundleDisplayName")) return *displayName;
        if (const std::string* bundleName = stringValue(*info, "CFBundleName")) return *bundleName;
    }
    return deletingPathExtension(parts[*chosen]);
}

std::string utunInterfaceName(std::uint32_t unit) {
    if (unit == 0) std::abort();  // the shim never reports unit 0
    return "utun" + std::to_string(unit - 1u);
}

TunnelOwnerMap TunnelOwners::fromRecords(std::span<const nv_utun_owner_t> records, const PathReader& executablePath,
                                         const BundleInformation& bundles) {
    TunnelOwnerMap owners;
    for (const nv_utun_owner_t& record : records.first(std::min<std::size_t>(records.size(), kCapacity))) {
        std::string path = executablePath(record.pid);
        std::string name = displayName(path, bundles);
        // The last record for a tunnel wins, deliberately.
        owners.insert_or_assign(tunnelInterfaceName(record), TunnelOwner{record.pid, std::move(name), std::move(path)});
    }
    return owners;
}

TunnelOwnerMap TunnelOwners::scan() {
    std::vector<nv_utun_owner_t> records(kCapacity);
    int count = nv_utun_owners(records.data(), kCapacity);
    if (count < 0) std::abort();  // the shim never reports a negative count
    records.resize(static_cast<std::size_t>(std::min(count, kCapacity)));
    return fromRecords(records, executablePath, systemBundleInformation());
}

}  // namespace netvane
