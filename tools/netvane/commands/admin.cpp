// netvane admin: the two client roles of the admin helper daemon, the
// menu-bar application ("app") and the control application ("control").
#include <cstdio>
#include <initializer_list>
#include <string>
#include <string_view>

#include "admin_protocol/admin_clients.h"
#include "admin_protocol/admin_protocols.h"
#include "command.h"
#include "commands/admin_transport.h"
#include "support/date.h"
#include "support/json.h"

namespace netvane::cli {
namespace {

int run(const Args& args);

// The transport's options and note differ by platform; the requests do not.
const std::string& synopsis() {
    static const std::string text = [] {
        std::string lines;
        for (const char* request : {"app status [--token T] [--json]", "app pair [--json]",
                                    "app set-service ID on|off --token T [--json]", "app unpair --token T [--json]",
                                    "app tunnels [--json]", "control status|pending [--json]",
                                    "control approve ID|deny ID|unpair-all [--json]"}) {
            lines += "  netvane admin " + std::string(AdminTransport::optionsSynopsis) + request + "\n";
        }
        return lines +
               "\n"
               "  app pair asks to pair and waits until the request is approved or denied\n"
               "  from the control role, then prints the token. Exit status: 0 success,\n"
               "  1 the daemon answered with an error, 2 usage, 3 daemon unreachable.\n"
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
    std::vector<std::string_view> words;  // role, verb and operands
};

bool isUnreachable(const Error& error) {
    return error.domain == ipc::kIpcErrorDomain && (error.code == ipc::kUnreachable || error.code == ipc::kConnectionLost);
}

int report(const Error& error, const Options& options) {
    if (options.json) {
        std::fputs(toJSON(plist::Dictionary{{"error", plist::Dictionary{{"domain", error.domain},
                                                                          {"code", error.code},
                                                                          {"message", error.message}}}})
                       .c_str(),
                   stdout);
    }
    std::fprintf(stderr, "netvane: %s (%s code %lld)\n", error.message.c_str(), error.domain.c_str(),
                 static_cast<long long>(error.code));
    return isUnreachable(error) ? kExitUnreachable : kExitFailure;
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

// Adds one line to a multi-line text, the fields separated by tabs. Appending
// piece by piece, rather than prefixing a literal to a temporary, also keeps
// GCC 12's overlap analysis at -O3 from misreading the copy (-Wrestrict).
void appendLine(std::string& text, std::initializer_list<std::string_view> fields) {
    if (!text.empty()) text += '\n';
    bool first = true;
    for (std::string_view field : fields) {
        if (!first) text += '\t';
        text += field;
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

int runApp(const Options& options) {
    const auto& w = options.words;
    const std::string_view verb = w.size() > 1 ? w[1] : "";
    const std::size_t operands = w.size() - 2;
    auto client = AdminTransport::connectApp(options.endpoint);
    if (!client) return report(client.error(), options);

    if (verb == "status" && operands == 0) {
        auto status = client->status(options.token);
        if (!status) return report(status.error(), options);
        return printValue(*status, options, statusText(*status));
    }
    if (verb == "pair" && operands == 0) {
        auto id = client->beginPairing();
        if (!id) return report(id.error(), options);
        if (!options.json) {
            std::fprintf(stderr, "pairing request %s is waiting for approval (netvane admin control approve %s)\n",
                         id->c_str(), id->c_str());
        }
        auto token = client->awaitPairing(*id);
        if (!token) return report(token.error(), options);
        return printValue(plist::Dictionary{{"id", *id}, {"token", *token}}, options, *token);
    }
    if (verb == "set-service" && operands == 2 && options.token && (w[3] == "on" || w[3] == "off")) {
        return done(client->setServiceEnabled(std::string(w[2]), w[3] == "on", *options.token), options, "");
    }
    if (verb == "unpair" && operands == 0 && options.token) {
        return done(client->unpair(*options.token), options, "");
    }
    if (verb == "tunnels" && operands == 0) {
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
    return usageError(command, "unknown or incomplete app request");
}

int runControl(const Options& options) {
    const auto& w = options.words;
    const std::string_view verb = w.size() > 1 ? w[1] : "";
    const std::size_t operands = w.size() - 2;
    if (!((operands == 0 && (verb == "status" || verb == "pending" || verb == "unpair-all")) ||
          (operands == 1 && (verb == "approve" || verb == "deny")))) {
        return usageError(command, "unknown or incomplete control request");
    }
    // The control application obtains the right in its own process before it
    // asks the daemon, which never interacts with a user.
    std::unique_ptr<AdminTransport::PairRight> right;
    if (verb == "approve" || verb == "unpair-all") {
        auto obtained = AdminTransport::obtainPairRight();
        if (!obtained) return report(obtained.error(), options);
        right = std::move(*obtained);
    }
    auto client = AdminTransport::connectControl(options.endpoint);
    if (!client) return report(client.error(), options);

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
    if (verb == "approve") return done(client->approvePairing(std::string(w[2]), right->externalForm()), options, "");
    return done(client->unpairAll(right->externalForm()), options, "");
}

int run(const Args& args) {
    Options options;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string_view arg = args[i];
        if (arg == "--json") {
            options.json = true;
        } else if (arg == "--token" && i + 1 < args.size()) {
            options.token = std::string(args[++i]);
        } else if (AdminTransport::takeOption(args, i, options.endpoint)) {
            continue;
        } else if (!arg.empty() && arg[0] == '-') {
            return usageError(command, "unknown option or missing value: " + std::string(arg));
        } else {
            options.words.push_back(arg);
        }
    }
    if (options.words.size() < 2) return usageError(command, "missing role and request");
    if (options.words[0] == "app") return runApp(options);
    if (options.words[0] == "control") return runControl(options);
    return usageError(command, "the role is app or control");
}

}  // namespace
}  // namespace netvane::cli
