// Queries the platform and prints the result, for tests that need a process with other arguments, another path, another
// environment or another user.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include <unistd.h>

#include <gio/gio.h>

#include <KRVQTProcessClient/Platform/Bundle.h>
#include <KRVQTProcessClient/Platform/HTTPClient.h>
#include <KRVQTProcessClient/Platform/ProcessTable.h>
#include <KRVQTProcessClient/Platform/UserDefaults.h>

namespace {

using Result = std::optional<std::string>;

Result status(const std::string& url) {
    const krv::HTTPResponse response = krv::HTTPClient::shared().send({url, {}, std::chrono::seconds(20)});
    return std::to_string(response.status) + ' ' + response.error.value_or("no error");
}

Result identifierWithApplication(const std::string& id) {
    GApplication* application = g_application_new(id.c_str(), G_APPLICATION_NON_UNIQUE);
    g_application_set_default(application);
    return krv::Bundle::main().bundleIdentifier();
}

Result set(const std::string& setting) {
    const std::size_t equals = setting.find('=');
    krv::UserDefaults::standard().setString(setting.substr(0, equals), setting.substr(equals + 1));
    return "done";
}

const std::map<std::string, std::function<Result(const std::string&)>> kQueries = {
    {"setting", [](const std::string& key) { return krv::UserDefaults::standard().stringForKey(key); }},
    {"set", set},
    {"resource", [](const std::string& name) { return krv::Bundle::main().pathForResource(name, ""); }},
    {"executable", [](const std::string& name) { return krv::Bundle::main().pathForAuxiliaryExecutable(name); }},
    {"bundle", [](const std::string&) { return Result(krv::Bundle::main().path()); }},
    {"identifier", [](const std::string&) { return krv::Bundle::main().bundleIdentifier(); }},
    {"application", identifierWithApplication},
    {"user",
     [](const std::string& id) {
         return ::setuid(static_cast<uid_t>(std::atoi(id.c_str()))) == 0 ? Result("done") : Result();
     }},
    {"get", status},
    {"pidNamespace", [](const std::string&) { return Result(std::to_string(krv::pidNamespace())); }},
};

}  // namespace

/// PlatformProbe QUESTION ARGUMENT [QUESTION ARGUMENT]... [-key value]...
int main(int count, char** arguments) {
    for (int i = 1; i + 1 < count; i += 2) {
        const auto question = kQueries.find(arguments[i]);
        if (question != kQueries.end()) {
            std::puts(question->second(arguments[i + 1]).value_or("(none)").c_str());
        }
    }
    return 0;
}
