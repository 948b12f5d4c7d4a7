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
#include <KRVQTProcessClient/Platform/UserDefaults.h>

namespace {

using Answer = std::optional<std::string>;

Answer status(const std::string& url) {
    const krv::HTTPResponse response = krv::HTTPClient::shared().send({url, {}, std::chrono::seconds(20)});
    return std::to_string(response.status) + ' ' + response.error.value_or("no error");
}

Answer identifierWithApplication(const std::string& id) {
    GApplication* application = g_application_new(id.c_str(), G_APPLICATION_NON_UNIQUE);
    g_application_set_default(application);
    return krv::Bundle::main().bundleIdentifier();
}

Answer set(const std::string& setting) {
    const std::size_t equals = setting.find('=');
    krv::UserDefaults::standard().setString(setting.substr(0, equals), setting.substr(equals + 1));
    return "done";
}

const std::map<std::string, std::function<Answer(const std::string&)>> kQuestions = {
    {"setting", [](const std::string& key) { return krv::UserDefaults::standard().stringForKey(key); }},
    {"set", set},
    {"resource", [](const std::string& name) { return krv::Bundle::main().pathForResource(name, ""); }},
    {"executable", [](const std::string& name) { return krv::Bundle::main().pathForAuxiliaryExecutable(name); }},
    {"bundle", [](const std::string&) { return Answer(krv::Bundle::main().path()); }},
    {"identifier", [](const std::string&) { return krv::Bundle::main().bundleIdentifier(); }},
    {"application", identifierWithApplication},
    {"user",
     [](const std::string& id) {
         return ::setuid(static_cast<uid_t>(std::atoi(id.c_str()))) == 0 ? Answer("done") : Answer();
     }},
    {"get", status},
};

}  // namespace

/// PlatformProbe QUESTION ARGUMENT [QUESTION ARGUMENT]... [-key value]...
int main(int count, char** arguments) {
    for (int i = 1; i + 1 < count; i += 2) {
        const auto question = kQuestions.find(arguments[i]);
        if (question != kQuestions.end()) {
            std::puts(question->second(arguments[i + 1]).value_or("(none)").c_str());
        }
    }
    return 0;
}
