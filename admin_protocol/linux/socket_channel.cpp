#include "admin_protocol/linux/socket_channel.h"

#include "admin_protocol/admin_constants.h"
#include "support/ipc/client.h"

namespace netvane {
namespace {

class SocketChannel final : public AdminChannel {
public:
    explicit SocketChannel(ipc::Client client) : client_(std::move(client)) {}

    Result<std::vector<ipc::ReplySlot>> call(const MethodDescription& method, std::vector<ipc::Argument> args,
                                             ReplyDeadline replyDeadline) override {
        return client_.call(method, std::move(args), replyDeadline);
    }

private:
    ipc::Client client_;
};

Result<std::unique_ptr<AdminChannel>> connectChannel(const std::string& path, ReplyDeadline deadline) {
    auto client = ipc::Client::connect(path, deadline);
    if (!client) return client.error();
    return std::unique_ptr<AdminChannel>(std::make_unique<SocketChannel>(std::move(*client)));
}

}  // namespace

std::string appServiceSocketPath(const std::string& runtimeDirectory) {
    return runtimeDirectory + "/" + AdminConstants::appServiceName();
}

std::string controlServiceSocketPath(const std::string& runtimeDirectory) {
    return runtimeDirectory + "/" + AdminConstants::controlServiceName();
}

Result<AdminAppClient> connectAppClient(const std::string& runtimeDirectory, ReplyDeadline deadline) {
    auto channel = connectChannel(appServiceSocketPath(runtimeDirectory), deadline);
    if (!channel) return channel.error();
    return AdminAppClient(std::move(*channel));
}

Result<AdminControlClient> connectControlClient(const std::string& runtimeDirectory, ReplyDeadline deadline) {
    auto channel = connectChannel(controlServiceSocketPath(runtimeDirectory), deadline);
    if (!channel) return channel.error();
    return AdminControlClient(std::move(*channel));
}

}  // namespace netvane
