#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace krv::test_kit {

/// The behaviour of the server under a rule. Documentation/test-kit.md describes each.
enum class Behaviour : std::uint8_t { Succeed, Fail, Die, Exit, Stall, Forget, Garbage, Status, Drop, Hang };

/// How the server treats the requests that the rule applies to.
struct Rule {
    /// The types of the requests; empty: those of every media operation.
    std::vector<std::int32_t> types;
    /// Which requests of their type, counted from 1; empty: all of them.
    std::vector<std::uint32_t> nth;
    Behaviour behaviour = Behaviour::Succeed;
    /// The progress at which the behaviour begins. Without it, the request itself meets the behaviour.
    std::optional<double> at;
    /// The numbers that are reported, each at least once.
    std::vector<double> progress{0.5};
    /// How long each number lasts at least.
    std::chrono::milliseconds every{0};
    /// The positions in the queue that are reported before the operation begins.
    std::vector<std::int64_t> queue;
    /// Number of the gate at which the operation waits before it ends or meets its behaviour.
    std::optional<std::size_t> gate;
    /// Added to every response about the operation.
    std::chrono::milliseconds delay{0};
    /// Entries of the finished record, in place of the usual ones.
    Dictionary result;
    Dictionary arguments;
    /// The contents of the files that a successful operation writes; empty: it writes none.
    std::optional<std::string> contents;
    /// For Fail. An empty text: the usual one for the code.
    std::int64_t errorCode = 0;
    std::string sentence;
    std::string cause;
    std::string file;
    /// For Status.
    unsigned status = 0;
    /// For Garbage and Status: the body of the response.
    std::string body;

    /// Returns whether the rule applies to the nth request of the type.
    [[nodiscard]] bool applies(std::int32_t type, std::uint32_t number) const;
};

struct Script {
    static constexpr std::size_t kMostGates = 64;

    /// The first rule that applies is used. Without one, a request succeeds.
    std::vector<Rule> rules;
    /// How long after its death the server is replaced; empty: never. Long enough for clients to notice: one that asks
    /// the next server how its operation is hears that there is none.
    std::optional<std::chrono::milliseconds> restart{1000};
    /// The names of the gates, by number.
    std::vector<std::string> gates;

    /// Returns the rule for the nth request of the type.
    [[nodiscard]] Rule ruleFor(std::int32_t type, std::uint32_t number) const;
    /// Returns the number of a gate, or nothing if no rule has it.
    [[nodiscard]] std::optional<std::size_t> gateNamed(std::string_view name) const;
};

/// A script that cannot be played. The text names the line and the problem.
class ScriptError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Parses a script: one JSON object per line. Throws ScriptError. Pure.
[[nodiscard]] Script parseScript(std::string_view text);

/// Returns the name that scripts and reports use for a type of request, such as "convert"; its number if it has none.
[[nodiscard]] std::string requestName(std::int32_t type);

}  // namespace krv::test_kit
