#include <climits>

#include <fmt/format.h>

#include <MediaServer/Protocol/RequestArguments.h>

namespace krv::server {

const Value* findArgument(const KRVOperationBase& request, std::string_view key) {
    const auto arguments = request.arguments();
    return arguments ? arguments->find(key) : nullptr;
}

std::optional<Failure> invalidArgument(std::string_view key, std::string why) {
    return Failure{.cause = FailureCause::InvalidArgument, .subject = std::string(key), .detail = std::move(why)};
}

std::optional<Failure> checkPathValue(const Value& value, std::string_view key, std::string_view which) {
    if (value.kind() != Value::Kind::String) {
        return invalidArgument(key, fmt::format("{}is not a string", which));
    }
    const std::string& path = value.stringValue();
    if (path.empty() || path.front() != '/') {
        return invalidArgument(key, fmt::format("{}is not an absolute path", which));
    }
    if (path.size() >= PATH_MAX) {
        return invalidArgument(key, fmt::format("{}is longer than {} bytes", which, PATH_MAX - 1));
    }
    return path.find('\0') == std::string::npos ? std::nullopt
                                                : invalidArgument(key, fmt::format("{}contains a zero byte", which));
}

std::optional<Failure> checkPath(const KRVOperationBase& request, std::string_view key) {
    const Value* const value = findArgument(request, key);
    return value ? checkPathValue(*value, key, "") : invalidArgument(key, "is missing");
}

std::optional<Failure> checkKind(const KRVOperationBase& request, std::string_view key, Value::Kind kind,
                                 std::string_view what) {
    const Value* const value = findArgument(request, key);
    return !value || value->kind() == kind ? std::nullopt : invalidArgument(key, fmt::format("is not {}", what));
}

}  // namespace krv::server
