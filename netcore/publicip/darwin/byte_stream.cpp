// macOS: the lookup's connections over the Network framework. TCP, or TLS
// with the platform's defaults (the system validates certificates), with
// the IP options of the protocol stack pinned to the requested version so
// that the connection may use that family only. The waiting, deadlines and
// cancellation are callback_stream.h's; this file only issues the calls.
#include <Network/Network.h>
#include <Security/SecBase.h>
#include <dispatch/dispatch.h>

#include <string>

#include "netcore/publicip/callback_stream.h"

namespace netvane {
namespace {

static_assert(kTLSStatusClosedWithoutNotify == errSSLClosedNoNotify);

// Owner of one reference to a Network framework object.
template <class T>
class NetworkRef {
public:
    explicit NetworkRef(T object = nullptr) : object_(object) {}
    NetworkRef(const NetworkRef&) = delete;
    NetworkRef& operator=(const NetworkRef&) = delete;
    ~NetworkRef() {
        if (object_ != nullptr) nw_release(object_);
    }
    T get() const { return object_; }

private:
    T object_;
};

Error errorOf(nw_error_t error) {
    const int code = nw_error_get_error_code(error);
    switch (nw_error_get_error_domain(error)) {
    case nw_error_domain_posix:
        return connectionError(ConnectionErrorKind::posix, code);
    case nw_error_domain_dns:
        return connectionError(ConnectionErrorKind::dns, code);
    case nw_error_domain_tls:
        return connectionError(ConnectionErrorKind::tls, code);
    default:
        return connectionError(ConnectionErrorKind::other, code);
    }
}

bool isIP(nw_protocol_options_t options) {
    if (options == nullptr) return false;
    NetworkRef<nw_protocol_definition_t> definition(nw_protocol_options_copy_definition(options));
    NetworkRef<nw_protocol_definition_t> ip(nw_protocol_copy_ip_definition());
    return nw_protocol_definition_is_equal(definition.get(), ip.get());
}

class NetworkConnection final : public CallbackConnection {
public:
    NetworkConnection(nw_connection_t connection, dispatch_queue_t queue)
        : connection_(connection), queue_(queue) {}
    NetworkConnection(const NetworkConnection&) = delete;
    NetworkConnection& operator=(const NetworkConnection&) = delete;
    ~NetworkConnection() override {
        nw_connection_cancel(connection_);
        nw_release(connection_);
        dispatch_release(queue_);
    }

    void start(Done ready) override {
        // The first of ready, waiting, failed and cancelled decides; a
        // connection waiting for a usable path therefore fails at once.
        nw_connection_set_state_changed_handler(connection_, ^(nw_connection_state_t state, nw_error_t error) {
          switch (state) {
          case nw_connection_state_ready:
              ready(Status{});
              break;
          case nw_connection_state_waiting:
          case nw_connection_state_failed:
              ready(error != nullptr ? errorOf(error) : connectionError(ConnectionErrorKind::other, 0));
              break;
          case nw_connection_state_cancelled:
              ready(cancelledError());
              break;
          default:
              break;
          }
        });
        nw_connection_set_queue(connection_, queue_);
        nw_connection_start(connection_);
    }

    void send(std::vector<std::uint8_t> bytes, Done done) override {
        // The data object keeps its own copy of the bytes.
        dispatch_data_t data = dispatch_data_create(bytes.data(), bytes.size(), queue_, DISPATCH_DATA_DESTRUCTOR_DEFAULT);
        nw_connection_send(connection_, data, NW_CONNECTION_DEFAULT_MESSAGE_CONTEXT, true, ^(nw_error_t error) {
          done(error != nullptr ? Status(errorOf(error)) : Status{});
        });
        dispatch_release(data);
    }

    void receive(std::size_t maximum, ReceiveDone done) override {
        // An error may come with the last bytes: both are handed on, the
        // bytes first, so that an answer ended by a close without
        // close_notify can still be judged whole.
        nw_connection_receive(connection_, 1, static_cast<std::uint32_t>(maximum),
                              ^(dispatch_data_t content, nw_content_context_t, bool complete, nw_error_t error) {
                                Received received;
                                received.complete = complete;
                                if (error != nullptr) received.failure = errorOf(error);
                                if (content != nullptr) {
                                    std::vector<std::uint8_t>* gathered = &received.data;
                                    dispatch_data_apply(content, ^bool(dispatch_data_t, size_t, const void* buffer,
                                                                       size_t size) {
                                      const auto* bytes = static_cast<const std::uint8_t*>(buffer);
                                      gathered->insert(gathered->end(), bytes, bytes + size);
                                      return true;
                                    });
                                }
                                done(std::move(received));
                              });
    }

    void cancel() override { nw_connection_cancel(connection_); }

private:
    nw_connection_t connection_;
    dispatch_queue_t queue_;
};

class NetworkConnector final : public StreamConnector {
public:
    Result<std::unique_ptr<ByteStream>> open(const StreamTarget& target, std::chrono::milliseconds timeout,
                                             const Cancellation* cancellation) override {
        NetworkRef<nw_parameters_t> parameters(
            nw_parameters_create_secure_tcp(target.tls ? NW_PARAMETERS_DEFAULT_CONFIGURATION : NW_PARAMETERS_DISABLE_PROTOCOL,
                                            NW_PARAMETERS_DEFAULT_CONFIGURATION));
        NetworkRef<nw_protocol_stack_t> stack(nw_parameters_copy_default_protocol_stack(parameters.get()));
        NetworkRef<nw_protocol_options_t> ip(nw_protocol_stack_copy_internet_protocol(stack.get()));
        // A stack whose internet protocol is not IP goes on without the restriction.
        if (isIP(ip.get())) {
            nw_ip_options_set_version(ip.get(), target.version == IPVersion::v4 ? nw_ip_version_4 : nw_ip_version_6);
        }
        const std::string port = std::to_string(target.port);
        NetworkRef<nw_endpoint_t> endpoint(nw_endpoint_create_host(target.host.c_str(), port.c_str()));
        if (endpoint.get() == nullptr) return connectionError(ConnectionErrorKind::dns, 0);
        nw_connection_t connection = nw_connection_create(endpoint.get(), parameters.get());
        if (connection == nullptr) return connectionError(ConnectionErrorKind::other, 0);
        dispatch_queue_t queue = dispatch_queue_create("PublicIPService", DISPATCH_QUEUE_SERIAL);
        return openCallbackStream(std::make_shared<NetworkConnection>(connection, queue), timeout, cancellation);
    }
};

}  // namespace

StreamConnector& systemStreamConnector() {
    static NetworkConnector connector;
    return connector;
}

}  // namespace netvane
