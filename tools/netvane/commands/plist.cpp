// netvane plist: look inside, and convert, the property lists the system
// writes (pairing file, rate history, Info.plist, IPC frames).
#include <unistd.h>

#include <string>

#include "command.h"
#include "io.h"
#include "support/json.h"
#include "support/plist/plist.h"

namespace netvane::cli {
namespace {

// The largest documents the system writes are rate histories, which the
// history commands read up to the same size; a larger file is refused
// before a byte of it is read.
constexpr std::size_t kMaxInputBytes = std::size_t{1} << 30;

constexpr Operand kFileOperand{"FILE", ValueKind::inputFile, "a binary or XML property list"};

int show(const Arguments& arguments);
int convert(const Arguments& arguments);

const Command showCommand{
    "plist show",
    "netvane plist show FILE [--xml | --json]",
    "print a property list as XML or JSON",
    {kFileOperand},
    {Option::flag("--xml", "as an XML property list (the default)"),
     Option::flag("--json", "as JSON: data as Base64 text, dates as ISO 8601 UTC, the UIDs of keyed archives as "
                            "{\"CF$UID\": n}; valid UTF-8 whatever the file holds")},
    "XML cannot carry most control characters, so a document whose strings hold one is shown only as JSON. "
    "Files are read up to 1 GiB.\n"
    "Exit status 0; 1 when FILE cannot be read or decoded, or the output fails; 2 for a usage error.",
    show,
};

const Command convertCommand{
    "plist convert",
    "netvane plist convert FILE --to binary|xml [-o OUT]",
    "rewrite a property list in binary or XML",
    {kFileOperand},
    {Option::choice("--to", "binary|xml", "the format to write (required)", "binary|xml"),
     Option::valued("-o", ValueKind::outputFile, "OUT", "where it goes (default: standard output)")},
    "OUT is replaced whole or not at all, keeping its mode and owner (FILE itself may be OUT); a link is "
    "followed; a named pipe or a device such as /dev/null is written into; a directory is refused. A binary "
    "document is not written to a terminal.\n"
    "Exit status 0; 1 when FILE cannot be read or decoded, or OUT cannot be written; 2 for a usage error.",
    convert,
};

Result<plist::Value> load(const std::string& file) {
    auto bytes = readInput(file, kMaxInputBytes);
    if (!bytes) return bytes.error();
    // Keyed archives are property lists too; their UIDs are shown, not refused.
    auto value = plist::decode(*bytes, plist::UIDs::read);
    if (!value) return Error{value.error().domain, value.error().code, inputName(file) + ": " + value.error().message};
    return value;
}

int show(const Arguments& arguments) {
    const bool json = arguments.flag("--json");
    if (json && arguments.flag("--xml")) return usageError(showCommand, "--xml and --json exclude each other");
    const std::string& file = arguments.operands()[0];
    auto value = load(file);
    if (!value) return failure(value.error().message);
    if (json) {
        print(toJSON(*value));
        return kExitOK;
    }
    auto text = plist::encodeXml(*value);
    if (!text) return failure(inputName(file) + ": " + text.error().message + "; --json shows every string");
    print(*text);
    return kExitOK;
}

int convert(const Arguments& arguments) {
    const bool binary = arguments.text("--to") == "binary";
    if (!arguments.has("--to")) return usageError(convertCommand, "missing --to binary|xml");
    const std::string output = arguments.text("-o").value_or("-");
    if (binary && output == "-" && ::isatty(STDOUT_FILENO) == 1) {
        return failure("a binary property list is not for a terminal; give -o OUT, or send the output elsewhere");
    }
    const std::string& file = arguments.operands()[0];
    auto value = load(file);
    if (!value) return failure(value.error().message);
    auto bytes = plist::encode(*value, binary ? plist::Format::Binary : plist::Format::Xml);
    if (!bytes) return failure(inputName(file) + ": " + bytes.error().message);
    if (Status written = writeOutput(output, *bytes); !written) return failure(written.error().message);
    return kExitOK;
}

}  // namespace
}  // namespace netvane::cli
