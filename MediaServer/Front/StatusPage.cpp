#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/Foundation/MediaServerName.h>

#include <MediaServer/Front/StatusPage.h>

namespace krv::server {

std::string statusPage(const ServerStatus& status) {
    const nlohmann::ordered_json json{{"name", kMediaServerName},
                                      {"version", status.version},
                                      {"pid", status.pid},
                                      {"port", status.port},
                                      {"uptime", status.uptime.count()},
                                      {"clients", status.clients},
                                      {"queued", status.queued},
                                      {"running", status.running},
                                      {"finished", status.finished},
                                      {"workers", status.workers},
                                      {"sandbox", {{"landlock", status.landlock}, {"seccomp", status.seccomp}}}};
    return json.dump() + "\n";
}

}  // namespace krv::server
