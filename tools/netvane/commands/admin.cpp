// netvane admin: the two client roles of the admin helper daemon, the
// menu-bar application ("app") and the control application ("control").
//
// In order: the whole request is checked (a usage error never depends on
// whether a daemon runs), then the daemon is reached, and only then is the
// pair right obtained, which may ask for a password. Every reply is awaited
// for a bounded time, except the approval that `app pair` waits for, which
// a person gives.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <initializer_list>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "admin_protocol/admin_clients.h"
#include "admin_protocol/admin_protocols.h"
#include "command.h"
#include "commands/admin_transport.h"
#include "support/date.h"
#include "support/json.h"
#include "support/unicode.h"
#include "support/unique_fd.h"

namespace netvane::cli {
namespace {

// Beside the statuses every command shares (command.h).
constexpr int kExitNoReply = 4;
constexpr double kMaximumTimeout = 86400;
// The daemon answers every call at once or after its turn comes; far longer
// than that means it is stuck, and a script must not be.
constexpr double kDefaultTimeoutSeconds = 30;
// A token is 44 characters; anything much longer is not one.
constexpr std::size_t kMaxTokenBytes = 4096;

int run(const Args& args);

// The transport's options and note differ by platform; the requests do not.
const std::string& synopsis() {
    static const std::string text = [] {
        std::string lines;
        for (const char* request : {"app status [--token T|--token-file F] [--json]", "app pair [--json]",
                                    "app set-service ID on|off --token T|--token-file F [--json]",
                                    "app unpair --token T|--token-file F [--json]", "app tunnels [--json]",
                                    "control status|pending [--json]",
                                    "control approve ID|deny ID|unpair-all [--json]"}) {
            lines += "  netvane admin " + std::string(AdminTransport::optionsSynopsis) + "[--timeout SECONDS] " +
                     request + "\n";
        }
        return lines +
               "\n"
               "  --token-file F reads the token from the file F (- for standard input).\n"
               "  Prefer it to --token T: the command line of every process, and so a\n"
               "  token given there, is visible to every user of the machine (ps).\n"
               "  app pair asks to pair and waits until the request is approved or denied\n"
               "  from the control role, then prints the token. --timeout is how long\n"
               "  reaching the daemon and each reply may take (default 30 s); app pair\n"
               "  waits for the approval without a limit unless --timeout is given.\n"
               "  Exit status: 0 success, 1 the daemon answered with an error, 2 usage,\n"
               "  3 daemon unreachable, 4 no reply within the timeout.\n"
               "  " + std::string(AdminTransport::whereNote);
    }();
    return text;
}

const Command command{
    "admin",
    synopsis(),
    "talk to the admin helper daemon as the app or the control application",
    run,
};

struct Options {
    AdminTransport::Endpoint endpoint;
    bool json = false;
    std::optional<std::string> token;
    std::optional<std::string> tokenFile;
    std::optional<double> timeout;
    std::vector<std::string_view> words;  // role, verb and operands
};

bool isUnreachable(const Error& error) {
    return error.domain == ipc::kIpcErrorDomain && (error.code == ipc::kUnreachable || error.code == ipc::kConnectionLost);
}

int exitStatusOf(const Error& error) {
    if (isUnreachable(error)) return kExitUnreachable;
    if (error.domain == ipc::kIpcErrorDomain && error.code == ipc::kTimedOut) return kExitNoReply;
    return kExitFailure;
}

int report(const Error& error, const Options& options) {
    if (options.json) {
        std::fputs(toJSON(plist::Dictionary{{"error", plist::Dictionary{{"domain", error.domain},
                                                                          {"code", error.code},
                                                                          {"message", error.message}}}})
                       .c_str(),
                   stdout);
    }
    // The daemon's texts and the names in them come from outside this process.
    std::fprintf(stderr, "netvane: %s (%s code %lld)\n", terminalText(error.message).c_str(),
                 terminalText(error.domain).c_str(), static_cast<long long>(error.code));
    return exitStatusOf(error);
}

int printValue(const plist::Value& value, const Options& options, const std::string& text) {
    if (options.json) {
        std::fputs(toJSON(value).c_str(), stdout);
    } else if (!text.empty()) {
        std::printf("%s\n", text.c_str());
    }
    return kExitOK;
}

int done(const Status& status, const Options& options, const char* what) {
    if (!status.ok()) return report(status.error(), options);
    return printValue(plist::Dictionary{{"ok", true}}, options, what);
}

// Adds one line to a multi-line text, the fields separated by tabs, each
// made safe for a terminal: they come from the daemon, and some from other
// users (a tunnel owner's bundle name, a path). Appending piece by piece,
// rather than prefixing a literal to a temporary, also keeps GCC 12's
// overlap analysis at -O3 from misreading the copy (-Wrestrict).
void appendLine(std::string& text, std::initializer_list<std::string_view> fields) {
    if (!text.empty()) text += '\n';
    bool first = true;
    for (std::string_view field : fields) {
        if (!first) text += '\t';
        text += terminalText(field);
        first = false;
    }
}

std::string statusText(const plist::Dictionary& status) {
    std::string text;
    for (const auto& [key, value] : status) {
        std::string shown;
        if (value.string()) shown = *value.string();
        else if (value.int64()) shown = std::to_string(*value.int64());
        else if (value.boolean()) shown = *value.boolean() ? "yes" : "no";
        appendLine(text, {key + ": " + shown});
    }
    return text;
}

// The token's source, read before the daemon is reached: a file (a pipe or
// a terminal will do) or standard input. One trailing line break is not
// part of it.
Result<std::string> readToken(const std::string& source) {
    const bool standardInput = source == "-";
    UniqueFd opened;
    if (!standardInput) {
        opened.reset(::open(source.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
        if (!opened) return posixError(errno, "cannot read the token from " + source);
    }
    const int fd = standardInput ? STDIN_FILENO : opened.get();
    const std::string shown = standardInput ? "standard input" : source;
    std::string token(kMaxTokenBytes + 1, '\0');
    std::size_t used = 0;
    while (used < token.size()) {
        const ssize_t n = ::read(fd, token.data() + used, token.size() - used);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return posixError(errno, "cannot read the token from " + shown);
        if (n == 0) break;
        used += static_cast<std::size_t>(n);
    }
    if (used > kMaxTokenBytes) return posixError(EFBIG, "the token in " + shown + " is far too long to be one");
    token.resize(used);
    if (token.ends_with('\n')) token.pop_back();
    if (token.ends_with('\r')) token.pop_back();
    if (token.empty()) return posixError(ENODATA, "no token in " + shown);
    return token;
}

std::chrono::milliseconds asDeadline(double seconds) {
    return std::chrono::milliseconds(static_cast<std::int64_t>(std::ceil(std::min(seconds, 1e9) * 1000)));
}

ReplyDeadline replyDeadline(const Options& options) {
    return asDeadline(options.timeout.value_or(kDefaultTimeoutSeconds));
}

int runApp(const Options& options) {
    const auto& w = options.words;
    const std::string_view verb = w[1];
    auto client = AdminTransport::connectApp(options.endpoint);
    if (!client) return report(client.error(), options);
    client->setReplyDeadline(replyDeadline(options));

    if (verb == "status") {
        auto status = client->status(options.token);
        if (!status) return report(status.error(), options);
        return printValue(*status, options, statusText(*status));
    }
    if (verb == "pair") {
        auto id = client->beginPairing();
        if (!id) return report(id.error(), options);
        if (!options.json) {
            const std::string shown = terminalText(*id);
            std::fprintf(stderr, "pairing request %s is waiting for approval (netvane admin control approve %s)\n",
                         shown.c_str(), shown.c_str());
        }
        // A person approves: no limit unless the caller sets one.
        client->setReplyDeadline(options.timeout ? ReplyDeadline(asDeadline(*options.timeout)) : std::nullopt);
        auto token = client->awaitPairing(*id);
        if (!token) return report(token.error(), options);
        return printValue(plist::Dictionary{{"id", *id}, {"token", *token}}, options, terminalText(*token));
    }
    if (verb == "set-service") {
        return done(client->setServiceEnabled(std::string(w[2]), w[3] == "on", *options.token), options, "");
    }
    if (verb == "unpair") return done(client->unpair(*options.token), options, "");
    auto owners = client->tunnelOwners();
    if (!owners) return report(owners.error(), options);
    std::string text;
    for (const plist::Value& owner : *owners) {
        auto field = [&](std::string_view key) {
            const plist::Value* v = owner.find(key);
            if (v && v->string()) return *v->string();
            if (v && v->int64()) return std::to_string(*v->int64());
            return std::string("?");
        };
        appendLine(text, {field(TunnelOwnerKey::interface), field(TunnelOwnerKey::pid), field(TunnelOwnerKey::name),
                          field(TunnelOwnerKey::path)});
    }
    return printValue(*owners, options, text);
}

int runControl(const Options& options) {
    const auto& w = options.words;
    const std::string_view verb = w[1];
    auto client = AdminTransport::connectControl(options.endpoint);
    if (!client) return report(client.error(), options);
    client->setReplyDeadline(replyDeadline(options));

    if (verb == "status") {
        auto status = client->status();
        if (!status) return report(status.error(), options);
        return printValue(*status, options, statusText(*status));
    }
    if (verb == "pending") {
        auto pending = client->pendingPairings();
        if (!pending) return report(pending.error(), options);
        std::string text;
        for (const plist::Value& entry : *pending) {
            const plist::Value* id = entry.find(PendingPairingKey::id);
            const plist::Value* created = entry.find(PendingPairingKey::created);
            if (!id || !id->string() || !created || !created->date()) continue;
            appendLine(text, {*id->string(), formatISO8601(*created->date())});
        }
        return printValue(*pending, options, text);
    }
    if (verb == "deny") return done(client->denyPairing(std::string(w[2])), options, "");
    // The control application obtains the right in its own process before it
    // asks the daemon, which never interacts with a user; it asks the person
    // only once the daemon is known to be there.
    auto right = AdminTransport::obtainPairRight();
    if (!right) return report(right.error(), options);
    const std::span<const std::uint8_t> authorization = (*right)->externalForm();
    if (verb == "approve") return done(client->approvePairing(std::string(w[2]), authorization), options, "");
    return done(client->unpairAll(authorization), options, "");
}

// Whether the words name a request this command knows, with what it needs.
std::optional<std::string> requestProblem(const Options& options) {
    const auto& w = options.words;
    if (w.size() < 2) return "missing role and request";
    const std::string_view verb = w[1];
    const std::size_t operands = w.size() - 2;
    const bool hasToken = options.token.has_value() || options.tokenFile.has_value();
    if (w[0] == "app") {
        const bool known = (operands == 0 && (verb == "status" || verb == "pair" || verb == "tunnels" ||
                                              verb == "unpair")) ||
                           (operands == 2 && verb == "set-service" && (w[3] == "on" || w[3] == "off"));
        if (!known) return "unknown or incomplete app request";
        if ((verb == "set-service" || verb == "unpair") && !hasToken) return "this request needs a token";
        if ((verb == "pair" || verb == "tunnels") && hasToken) return "this request takes no token";
        return std::nullopt;
    }
    if (w[0] == "control") {
        const bool known = (operands == 0 && (verb == "status" || verb == "pending" || verb == "unpair-all")) ||
                           (operands == 1 && (verb == "approve" || verb == "deny"));
        if (!known) return "unknown or incomplete control request";
        if (hasToken) return "control requests take no token";
        return std::nullopt;
    }
    return "the role is app or control";
}

int run(const Args& args) {
    Options options;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string_view arg = args[i];
        const bool hasValue = i + 1 < args.size();
        if (arg == "--json") {
            options.json = true;
        } else if ((arg == "--token" || arg == "--token-file") && hasValue) {
            if (options.token || options.tokenFile) return usageError(command, "give the token once");
            (arg == "--token" ? options.token : options.tokenFile) = std::string(args[++i]);
        } else if (arg == "--timeout" && hasValue) {
            if (options.timeout) return usageError(command, "--timeout is given twice");
            options.timeout = parseDecimal(args[++i]);
            if (!options.timeout || !(*options.timeout > 0 && *options.timeout <= kMaximumTimeout)) {
                return usageError(command, "--timeout needs a number of seconds greater than 0 and at most 86400");
            }
        } else if (AdminTransport::takeOption(args, i, options.endpoint)) {
            continue;
        } else if (!arg.empty() && arg[0] == '-') {
            return usageError(command, "unknown option or missing value: " + terminalText(arg));
        } else {
            options.words.push_back(arg);
        }
    }
    if (auto problem = requestProblem(options)) return usageError(command, *problem);
    options.endpoint.deadline = replyDeadline(options);
    if (options.tokenFile) {
        auto token = readToken(*options.tokenFile);
        if (!token) return failure(terminalText(token.error().message));
        options.token = std::move(*token);
    }
    return options.words[0] == "app" ? runApp(options) : runControl(options);
}

}  // namespace
}  // namespace netvane::cli
