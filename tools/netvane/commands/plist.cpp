// netvane plist: look inside, and convert, the property lists the system
// writes (pairing file, rate history, Info.plist, IPC frames).
#include <cstdio>
#include <string>

#include "command.h"
#include "support/files.h"
#include "support/json.h"
#include "support/plist/plist.h"

namespace netvane::cli {
namespace {

// Property lists we are asked to show are documents, not memory dumps.
constexpr std::size_t kMaxInputBytes = std::size_t{1} << 30;

int run(const Args& args);

const Command command{
    "plist",
    "  netvane plist show FILE [--xml | --json]\n"
    "      Print a binary or XML property list as XML (default) or JSON\n"
    "      (data as Base64 text, dates as ISO 8601 UTC, the UIDs of keyed\n"
    "      archives as {\"CF$UID\": n}).\n"
    "  netvane plist convert FILE --to binary|xml [-o OUT]\n"
    "      Rewrite a property list in the other format (to stdout without -o).",
    "show or convert property-list files",
    run,
};

Result<plist::Value> load(std::string_view path) {
    auto bytes = readFile(std::string(path), kMaxInputBytes);
    if (!bytes) return bytes.error();
    // Keyed archives are property lists too; their UIDs are shown, not refused.
    auto value = plist::decode(*bytes, plist::UIDs::read);
    if (!value) return Error{value.error().domain, value.error().code, std::string(path) + ": " + value.error().message};
    return value;
}

int show(const Args& args) {
    std::string_view file;
    bool json = false;
    bool xml = false;
    for (std::string_view arg : args) {
        if (arg == "--json") json = true;
        else if (arg == "--xml") xml = true;
        else if (!arg.empty() && arg[0] == '-') return usageError(command, "unknown option " + std::string(arg));
        else if (file.empty()) file = arg;
        else return usageError(command, "more than one FILE");
    }
    if (file.empty()) return usageError(command, "missing FILE");
    if (json && xml) return usageError(command, "--xml and --json exclude each other");
    auto value = load(file);
    if (!value) return failure(value.error().message);
    if (json) {
        std::fputs(toJSON(*value).c_str(), stdout);
        return kExitOK;
    }
    auto text = plist::encodeXml(*value);
    if (!text) return failure(text.error().message);
    std::fwrite(text->data(), 1, text->size(), stdout);
    return kExitOK;
}

int convert(const Args& args) {
    std::string_view file, to, output;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string_view arg = args[i];
        if ((arg == "--to" || arg == "-o") && i + 1 < args.size()) {
            (arg == "--to" ? to : output) = args[++i];
        } else if (!arg.empty() && arg[0] == '-') {
            return usageError(command, "unknown option or missing value: " + std::string(arg));
        } else if (file.empty()) {
            file = arg;
        } else {
            return usageError(command, "more than one FILE");
        }
    }
    if (file.empty()) return usageError(command, "missing FILE");
    if (to != "binary" && to != "xml") return usageError(command, "--to must be binary or xml");
    auto value = load(file);
    if (!value) return failure(value.error().message);
    auto bytes = plist::encode(*value, to == "binary" ? plist::Format::Binary : plist::Format::Xml);
    if (!bytes) return failure(bytes.error().message);
    if (output.empty()) {
        std::fwrite(bytes->data(), 1, bytes->size(), stdout);
        return kExitOK;
    }
    if (auto written = writeFileAtomically(std::string(output), *bytes); !written.ok()) {
        return failure(written.error().message);
    }
    return kExitOK;
}

int run(const Args& args) {
    if (args.empty()) return usageError(command, "missing subcommand");
    const Args rest(args.begin() + 1, args.end());
    if (args[0] == "show") return show(rest);
    if (args[0] == "convert") return convert(rest);
    return usageError(command, "unknown subcommand " + std::string(args[0]));
}

}  // namespace
}  // namespace netvane::cli
