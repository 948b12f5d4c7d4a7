#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <functional>
#include <memory>

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <glib.h>
#include <nlohmann/json.hpp>

#include "ActivityAssets.h"
#include <MediaServer/Front/ActivityPage.h>
#include <MediaServer/Protocol/MediaRequest.h>

namespace krv::server {
namespace {

using Json = nlohmann::ordered_json;
using Seconds = OperationActivity::Seconds;
using GText = std::unique_ptr<char, decltype(&g_free)>;

/// The longest name of a file that file systems allow. A request may contain longer ones.
constexpr std::size_t kLongestName = 255;

/// Returns the name of a file without its folders, in valid UTF-8.
std::string fileName(const std::string& path) {
    const std::filesystem::path file(path);
    std::string name = (file.has_filename() ? file : file.parent_path()).filename().string();
    name.resize(std::min(name.size(), kLongestName));
    const GText valid(g_utf8_make_valid(name.data(), static_cast<gssize>(name.size())), &g_free);
    return valid.get();
}

std::string_view nameOf(const KRVOperationBase& request) {
    switch (request.operationType()) {
    case OpEncodeVideo:
        return request.encodingFlattenOnly() ? "Flatten" : "Convert";
    case OpCreateThumbnails:
        return "Thumbnails";
    case OpProvideMetadata:
        return "Describe";
    case OpMuxAudioTo2ch:
        return "Mix to stereo";
    case OpMergeSources:
        return "Merge";
    case OpGetInterestingTimes:
        return "Find times";
    default:
        return "Operation";
    }
}

Json entry(const ServerActivity& activity, const OperationActivity::Waiting& operation) {
    const auto sources = sourcesOf(*operation.request);
    const auto program = activity.programs.find(operation.client.pid);
    const bool known = program != activity.programs.end() && !program->second.empty();
    return {{"number", operation.number},
            {"operation", nameOf(*operation.request)},
            {"source", sources.empty() ? "" : fileName(sources.front())},
            {"sources", sources.size()},
            {"destination", fileName(operation.request->encodingDestinationFilename().value_or(""))},
            {"client", {{"pid", operation.client.pid}, {"name", known ? fileName(program->second) : "an application"}}},
            {"waited", operation.waited.count()}};
}

Json runningEntry(const ServerActivity& activity, const OperationActivity::Running& operation) {
    Json json = entry(activity, operation);
    json["fraction"] = operation.progress;
    json["elapsed"] = operation.elapsed.count();
    json["remaining"] = operation.remaining ? Json(operation.remaining->count()) : Json();
    return json;
}

Json workerEntry(const Json& operations, const ServerActivity& activity, const ServerActivity::WorkerProcess& worker) {
    const auto& running = activity.operations.running;
    const auto its = std::find_if(running.begin(), running.end(),
                                  [&](const auto& each) { return each.request.get() == worker.request; });
    if (!worker.request || its == running.end()) {
        return {{"pid", worker.pid}, {"state", worker.request ? "ending" : "idle"}};
    }
    const Json& operation = operations[static_cast<std::size_t>(its - running.begin())];
    return {{"pid", worker.pid},
            {"state", "working"},
            {"number", operation["number"]},
            {"operation", operation["operation"]},
            {"source", operation["source"]}};
}

Json describe(const ServerActivity& activity) {
    const auto& doing = activity.operations;
    Json json = Json::parse(statusPage(activity.status));
    json["operations"] = Json::array();
    json["queue"] = Json::array();
    json["processes"] = Json::array();
    json["errors"] = Json::array();
    for (const auto& each : doing.running) {
        json["operations"].push_back(runningEntry(activity, each));
    }
    for (const auto& each : doing.waiting) {
        json["queue"].push_back(entry(activity, each));
    }
    json["more"] = doing.waitingInAll - doing.waiting.size();
    for (const auto& each : activity.workers) {
        json["processes"].push_back(workerEntry(json["operations"], activity, each));
    }
    for (const auto& each : doing.problems) {
        const auto when = activity.now - std::chrono::duration_cast<std::chrono::system_clock::duration>(each.ago);
        json["errors"].push_back({{"number", each.number},
                                  {"time", std::chrono::duration<double>(when.time_since_epoch()).count()},
                                  {"sentence", each.sentence}});
    }
    return json;
}

std::string escaped(std::string_view text) {
    const GText safe(g_markup_escape_text(text.data(), static_cast<gssize>(text.size())), &g_free);
    return safe.get();
}

std::string textOf(const Json& object, const char* key) {
    return escaped(object[key].get_ref<const std::string&>());
}

std::string clockText(double seconds) {
    const auto whole = static_cast<long>(std::max(0.0, std::floor(seconds)));
    constexpr long kMinute = 60;
    constexpr long kHour = 60 * kMinute;
    return whole >= kHour ? fmt::format("{}:{:02}:{:02}", whole / kHour, whole / kMinute % kMinute, whole % kMinute)
                          : fmt::format("{}:{:02}", whole / kMinute, whole % kMinute);
}

std::string momentText(double seconds) {
    return fmt::format("{:%Y-%m-%d %H:%M:%S}", fmt::localtime(static_cast<std::time_t>(seconds)));
}

// The same elements as the page's script makes, which keeps those whose key is still there.

std::string titleElement(const Json& each) {
    const auto others = each["sources"].get<std::size_t>();
    const std::string destination = textOf(each, "destination");
    return fmt::format(R"(<div class="row"><span><bdi class="name">{}{}</bdi>{}</span>)"
                       R"(<span class="faint">{}</span></div>)",
                       textOf(each, "source"), others > 1 ? fmt::format(" and {} more", others - 1) : "",
                       destination.empty() ? "" : fmt::format(" → <bdi>{}</bdi>", destination),
                       textOf(each, "operation"));
}

std::string footElement(const Json& each, const std::string& time) {
    return fmt::format(R"(<div class="row"><span class="faint time">{}</span><bdi class="faint">{} ({})</bdi></div>)",
                       time, textOf(each["client"], "name"), each["client"]["pid"].get<pid_t>());
}

std::string operationElement(const Json& each) {
    const double fraction = each["fraction"];
    const std::string left =
        each["remaining"].is_null() ? "" : fmt::format(" · {} left", clockText(each["remaining"].get<double>()));
    return fmt::format(R"(<li data-key="{}">{}<progress max="1" value="{:.4f}" aria-label="{} {}"></progress>{}</li>)",
                       each["number"].get<std::uint64_t>(), titleElement(each), fraction, textOf(each, "operation"),
                       textOf(each, "source"),
                       footElement(each, fmt::format("{:.0f} % · {} elapsed{}", std::floor(fraction * 100),
                                                     clockText(each["elapsed"].get<double>()), left)));
}

std::string waitingElement(const Json& each) {
    return fmt::format(R"(<li data-key="{}">{}{}</li>)", each["number"].get<std::uint64_t>(), titleElement(each),
                       footElement(each, "waiting for " + clockText(each["waited"].get<double>())));
}

std::string processElement(const Json& each) {
    const bool working = each["state"] == "working";
    return fmt::format(R"(<li><span class="faint">Process {}</span> {}</li>)", each["pid"].get<pid_t>(),
                       working ? fmt::format("<bdi>{} {}</bdi>", textOf(each, "operation"), textOf(each, "source"))
                               : fmt::format(R"(<span class="faint">{}</span>)", textOf(each, "state")));
}

std::string errorElement(const Json& each) {
    return fmt::format(R"(<li data-key="{}"><div class="faint">{}</div><bdi class="bad">{}</bdi></li>)",
                       each["number"].get<std::uint64_t>(), momentText(each["time"].get<double>()),
                       textOf(each, "sentence"));
}

std::string elements(const Json& list, std::string (*element)(const Json& each)) {
    std::string text;
    for (const Json& each : list) {
        text += element(each);
    }
    return text;
}

/// Replaces each {name} of the template.
std::string filled(std::string_view pattern, const std::map<std::string_view, std::string>& values) {
    std::string text;
    while (!pattern.empty()) {
        const auto begin = pattern.find('{');
        const auto end = pattern.find('}', begin);
        text += pattern.substr(0, begin);
        if (end == std::string_view::npos) {
            break;
        }
        text += values.at(pattern.substr(begin + 1, end - begin - 1));
        pattern.remove_prefix(end + 1);
    }
    return text;
}

/// Returns the source expression by which a content security policy admits an inline script or style.
std::string admitted(std::string_view content) {
    constexpr std::size_t kSize = 32;
    std::array<unsigned char, kSize> digest{};
    gsize size = digest.size();
    const std::unique_ptr<GChecksum, decltype(&g_checksum_free)> checksum(g_checksum_new(G_CHECKSUM_SHA256),
                                                                          &g_checksum_free);
    g_checksum_update(checksum.get(), reinterpret_cast<const guchar*>(content.data()),
                      static_cast<gssize>(content.size()));
    g_checksum_get_digest(checksum.get(), digest.data(), &size);
    const GText base64(g_base64_encode(digest.data(), size), &g_free);
    return fmt::format("'sha256-{}'", base64.get());
}

std::vector<std::pair<std::string, std::string>> safeHeaders() {
    return {{"Cache-Control", "no-store"},
            {"X-Content-Type-Options", "nosniff"},
            {"Referrer-Policy", "no-referrer"},
            {"Cross-Origin-Resource-Policy", "same-origin"}};
}

const std::string& contentSecurityPolicy() {
    static const std::string kPolicy = fmt::format(
        "default-src 'none'; style-src {}; script-src {}; connect-src 'self'; base-uri 'none'; form-action 'none'; "
        "frame-ancestors 'none'; require-trusted-types-for 'script'; trusted-types 'none'",
        admitted(kActivityCSS), admitted(kActivityJS));
    return kPolicy;
}

}  // namespace

Page activityData(const ServerActivity& activity) {
    return {.body = describe(activity).dump(-1, ' ', false, Json::error_handler_t::replace) + "\n",
            .headers = safeHeaders()};
}

Page activityPage(const ServerActivity& activity) {
    const Json json = describe(activity);
    const auto& status = activity.status;
    const auto number = [&](const char* key) { return std::to_string(json[key].get<std::size_t>()); };
    const auto more = json["more"].get<std::size_t>();
    Page page{
        .body = filled(
            kActivityHTML,
            {{"title", status.running > 0 ? fmt::format("{} running – Media server", status.running) : "Media server"},
             {"style", std::string(kActivityCSS)},
             {"script", std::string(kActivityJS)},
             {"server", fmt::format("{} {}, process {}, port {}, up {}", textOf(json, "name"), textOf(json, "version"),
                                    status.pid, status.port, clockText(status.uptime.count()))},
             {"time", momentText(std::chrono::duration<double>(activity.now.time_since_epoch()).count())},
             {"running", number("running")},
             {"waiting", number("queued")},
             {"workers", number("workers")},
             {"applications", std::to_string(status.clients.size())},
             {"operations", elements(json["operations"], &operationElement)},
             {"queue", elements(json["queue"], &waitingElement)},
             {"more", more > 0 ? fmt::format("and {} more", more) : ""},
             {"processes", elements(json["processes"], &processElement)},
             {"errors", elements(json["errors"], &errorElement)}}),
        .type = "text/html; charset=utf-8",
        .headers = safeHeaders()};
    page.headers.emplace_back("Content-Security-Policy", contentSecurityPolicy());
    page.headers.emplace_back("Cross-Origin-Opener-Policy", "same-origin");
    return page;
}

}  // namespace krv::server
