#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include "Commands.h"
#include "Output.h"
#include "Paths.h"
#include "Question.h"

namespace krvqt {
namespace {

using krv::Value;

nlohmann::json jsonOf(const Value& value);

nlohmann::json jsonOf(const krv::Dictionary& dictionary) {
    auto json = nlohmann::json::object();
    for (const auto& [key, each] : dictionary) {
        json[*key] = jsonOf(each);
    }
    return json;
}

nlohmann::json jsonOf(const krv::EncodingParameters& parameters) {
    nlohmann::json json{
        {"class", parameters.className()}, {"codec", parameters.codec()}, {"quality", parameters.quality()}};
    if (const auto blob = parameters.settingsBlob()) {
        json["settingsBytes"] = blob->size();
    }
    if (const auto* video = dynamic_cast<const krv::VideoEncodingParameters*>(&parameters)) {
        json["fps"] = video->fps();
    }
    return json;
}

nlohmann::json jsonOf(const krv::Error& error) {
    nlohmann::json json{{"domain", error.domain()},
                        {"code", error.code()},
                        {"description", error.localizedDescription()},
                        {"reason", error.localizedFailureReason()}};
    if (const auto userInfo = error.userInfo(); userInfo && userInfo->find(krv::kErrorFilePath)) {
        json["path"] = (*userInfo)[krv::kErrorFilePath].stringValue();
    }
    return json;
}

nlohmann::json jsonOf(const Value& value) {
    switch (value.kind()) {
    case Value::Kind::Null:
        return nullptr;
    case Value::Kind::Boolean:
        return value.boolValue();
    case Value::Kind::Integer:
        return value.integerValue();
    case Value::Kind::Float32:
    case Value::Kind::Float64:
        return value.doubleValue();
    case Value::Kind::Size:
        return {{"width", value.sizeValue().width}, {"height", value.sizeValue().height}};
    case Value::Kind::Array: {
        auto json = nlohmann::json::array();
        for (const Value& each : *value.array()) {
            json.push_back(jsonOf(each));
        }
        return json;
    }
    case Value::Kind::Dictionary:
        return jsonOf(*value.dictionary());
    case Value::Kind::Error:
        return jsonOf(*value.error());
    case Value::Kind::Object:
        if (const auto* parameters = dynamic_cast<const krv::EncodingParameters*>(value.object().get())) {
            return jsonOf(*parameters);
        }
        return value.description();
    case Value::Kind::Data:
        return {{"bytes", value.data()->size()}};
    case Value::Kind::String:
    case Value::Kind::Date:
        return value.description();
    }
    return nullptr;
}

nlohmann::json jsonOf(const krv::KRVOperationBase& record) {
    const krv::TestOpInfo& test = *record.testInfo();
    return {{"type", record.operationType()},
            {"name", record.nameFromType()},
            {"uniqueID", record.uniqueID() ? nlohmann::json(*record.uniqueID()) : nlohmann::json()},
            {"progress", record.progress()},
            {"completed", record.completed()},
            {"cancelled", record.cancelled()},
            {"isClientRegistered", record.isClientRegistered()},
            {"error", jsonOf(Value(record.error()))},
            {"arguments", jsonOf(Value(record.arguments()))},
            {"result", jsonOf(Value(record.result()))},
            {"testInfo",
             {{"shouldError", test.shouldError != 0},
              {"shouldComplete", test.shouldComplete != 0},
              {"shouldThrow", test.shouldThrow != 0},
              {"shouldCrash", test.shouldCrash != 0},
              {"timeToLive", test.timeToLive}}}};
}

bool readAll(std::istream& in, krv::Data& data) {
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    const auto* p = reinterpret_cast<const std::byte*>(text.data());
    data.assign(p, p + text.size());
    return !in.bad();
}

ExitStatus showRecord(const std::string& file, const CommonOptions& common) {
    krv::Data data;
    bool read = false;
    if (file == "-") {
        read = readAll(std::cin, data);
    } else {
        std::ifstream in(file, std::ios::binary);
        read = in && readAll(in, data);
    }
    if (!read) {
        const std::string cause = std::strerror(errno);
        return questionFailed("record",
                              {krv::Failure::Kind::SourceMissing,
                               {.message = fmt::format("Cannot read {}: {}.", file, cause), .cause = cause}},
                              common, file);
    }
    const auto record = krv::KRVOperationBase::operationFromData(std::make_shared<const krv::Data>(std::move(data)));
    if (!record) {
        const std::string cause = "it is not an archived operation record";
        return questionFailed("record",
                              {krv::Failure::Kind::NotMedia,
                               {.message = fmt::format("Cannot print {}: {}.", file, cause), .cause = cause}},
                              common, file);
    }
    if (common.json) {
        printOut("{}\n", jsonOf(*record).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
    } else {
        printOut("{}\n{}\n", record->description(),
                 jsonOf(*record).dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
    }
    return kDone;
}

}  // namespace

void addRecord(CommandLine& line) {
    const auto file = std::make_shared<std::string>();
    line.add("record", "print an archived operation record",
             [file](const CommonOptions& common) { return showRecord(*file, common); })
        .add_option("file", *file, "the file to read; - is standard input")
        ->required()
        ->type_name("FILE");
}

}  // namespace krvqt
