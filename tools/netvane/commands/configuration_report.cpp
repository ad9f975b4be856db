#include "configuration_report.h"

#include "interface_report.h"
#include "io.h"
#include "support/unicode.h"

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

// Text from the configuration store, which profiles' owners name, made safe
// for a terminal; "-" when absent.
std::string shown(const std::optional<std::string>& value) { return value ? terminalText(*value) : "-"; }

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

void printServices(const NetworkMetadata& metadata) {
    print("network services, in order:\n");
    if (metadata.services.empty()) print("  (none)\n");
    std::size_t rank = 0;
    for (const NetworkService& service : metadata.services) {
        std::string notes = service.enabled ? "on" : "off";
        if (service.hidden) notes += ", hidden";
        printFormatted("  %2zu. %-28s %-12s %-12s %s\n", ++rank, terminalText(service.name).c_str(),
                       shown(service.bsdName).c_str(), notes.c_str(), terminalText(service.id).c_str());
    }
}

void printInterfaces(const NetworkMetadata& metadata) {
    print("configurable interfaces:\n");
    if (metadata.interfaces.empty()) print("  (none)\n");
    for (const auto& [name, interface] : metadata.interfaces) {
        printFormatted("  %-16s %-20s %-10s %s\n", terminalText(name).c_str(), shown(interface.displayName).c_str(),
                       shown(interface.interfaceType).c_str(), shown(interface.hardwareAddress).c_str());
    }
}

void printPrimaries(const NetworkMetadata& metadata) {
    printFormatted("primary interfaces: IPv4 %s, IPv6 %s\n", shown(metadata.primaryIPv4Interface).c_str(),
                   shown(metadata.primaryIPv6Interface).c_str());
}

}  // namespace netvane::cli
