#include "configuration_report.h"

#include "interface_report.h"

namespace netvane::cli {
namespace {

void writeService(JsonWriter& json, const NetworkService& service) {
    json.beginObject();
    json.key("id");
    json.string(service.id);
    json.key("name");
    json.string(service.name);
    json.key("enabled");
    json.boolean(service.enabled);
    writeIfPresent(json, "bsdName", service.bsdName);
    json.key("hidden");
    json.boolean(service.hidden);
    json.endObject();
}

const char* orDash(const std::optional<std::string>& value) { return value ? value->c_str() : "-"; }

}  // namespace

void writeServicesAndPrimaries(JsonWriter& json, const NetworkMetadata& metadata) {
    json.key("services");
    json.beginArray();
    for (const NetworkService& service : metadata.services) writeService(json, service);
    json.endArray();
    writeIfPresent(json, "primaryIPv4Interface", metadata.primaryIPv4Interface);
    writeIfPresent(json, "primaryIPv6Interface", metadata.primaryIPv6Interface);
}

void writeMetadata(JsonWriter& json, const NetworkMetadata& metadata) {
    json.beginObject();
    json.key("interfaces");
    json.beginObject();
    for (const auto& [name, interface] : metadata.interfaces) {
        json.key(name);
        json.beginObject();
        json.key("bsdName");
        json.string(interface.bsdName);
        writeIfPresent(json, "displayName", interface.displayName);
        writeIfPresent(json, "interfaceType", interface.interfaceType);
        writeIfPresent(json, "hardwareAddress", interface.hardwareAddress);
        json.endObject();
    }
    json.endObject();
    writeServicesAndPrimaries(json, metadata);
    json.endObject();
}

void printServices(std::FILE* out, const NetworkMetadata& metadata) {
    std::fprintf(out, "network services, in order:\n");
    if (metadata.services.empty()) std::fprintf(out, "  (none)\n");
    std::size_t rank = 0;
    for (const NetworkService& service : metadata.services) {
        std::string notes = service.enabled ? "on" : "off";
        if (service.hidden) notes += ", hidden";
        std::fprintf(out, "  %2zu. %-28s %-12s %-12s %s\n", ++rank, service.name.c_str(), orDash(service.bsdName),
                     notes.c_str(), service.id.c_str());
    }
}

void printInterfaces(std::FILE* out, const NetworkMetadata& metadata) {
    std::fprintf(out, "configurable interfaces:\n");
    if (metadata.interfaces.empty()) std::fprintf(out, "  (none)\n");
    for (const auto& [name, interface] : metadata.interfaces) {
        std::fprintf(out, "  %-16s %-20s %-10s %s\n", name.c_str(), orDash(interface.displayName),
                     orDash(interface.interfaceType), orDash(interface.hardwareAddress));
    }
}

void printPrimaries(std::FILE* out, const NetworkMetadata& metadata) {
    std::fprintf(out, "primary interfaces: IPv4 %s, IPv6 %s\n", orDash(metadata.primaryIPv4Interface),
                 orDash(metadata.primaryIPv6Interface));
}

}  // namespace netvane::cli
