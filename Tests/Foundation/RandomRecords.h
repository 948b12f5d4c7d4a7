#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <KRVQTProcessClient/Foundation/Error.h>
#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

namespace krv::test {

/// Makes records of values of every kind, always the same ones from the same seed. Some values are shared, within a
/// record and between records.
class RandomRecords {
public:
    explicit RandomRecords(std::uint32_t seed)
        : random_(seed) {}

    [[nodiscard]] KRVOperationBase::Ref record(int depth = 4) {
        const auto record = std::make_shared<KRVOperationBase>();
        record->setOperationType(static_cast<std::int32_t>(integer()));
        record->setProgress(float32());
        record->setCompleted(chance(2));
        record->setCancelled(chance(2));
        record->setIsClientRegistered(chance(2));
        *record->testInfo() = {flag(), flag(), flag(), flag(), static_cast<std::int32_t>(integer())};
        if (chance(2)) {
            record->setUniqueID(text());
        }
        if (chance(3)) {
            record->setError(error(depth));
        }
        record->setArguments(entries(depth));
        record->setResult(entries(depth));
        return record;
    }

    [[nodiscard]] Value value(int depth) {
        // The last one made is often part of the next, so that chains of shared containers arise.
        if (!made_.empty() && chance(6)) {
            return made_[chance(2) ? made_.size() - 1 : below(made_.size())];
        }
        Value made = newValue(depth);
        made_.push_back(made);
        if (made_.size() > kRemembered) {
            made_.erase(made_.begin(), made_.begin() + kRemembered / 2);
        }
        return made;
    }

    [[nodiscard]] std::size_t below(std::size_t count) { return static_cast<std::size_t>(random_() % count); }
    /// True once in so many times.
    [[nodiscard]] bool chance(std::size_t times) { return below(times) == 0; }

private:
    static constexpr std::size_t kRemembered = 64;

    template <typename T, std::size_t size>
    const T& oneOf(const std::array<T, size>& all) {
        return all.at(below(size));
    }

    std::uint64_t bits() { return random_(); }
    std::int8_t flag() { return static_cast<std::int8_t>(below(2)); }

    Value newValue(int depth) {
        constexpr std::size_t kKindsWithoutOthers = 9;
        constexpr std::size_t kKinds = 16;
        switch (below(depth > 0 ? kKinds : kKindsWithoutOthers)) {
        case 0:
            return {};
        case 1:
            return Value(chance(2));
        case 2:
            return Value(integer());
        case 3:
            return Value(float32());
        case 4:
            return Value(float64());
        case 5:
            return Value(text());
        case 6:
            return Value(data());
        case 7:
            return Value(Date{float64()});
        case 8:
            return Value(Size{float64(), float64()});
        case 9:
        case 10:
            return array(depth - 1);
        case 11:
            return Value(Value::DictionaryRef(entries(depth - 1)));
        case 12:
            return Value(error(depth - 1));
        case 13:
            return parameters<VideoEncodingParameters>();
        case 14:
            return chance(2) ? parameters<AudioEncodingParameters>() : parameters<EncodingParameters>();
        default:
            return Value(Value::ObjectRef(record(depth - 2)));
        }
    }

    std::int64_t integer() {
        constexpr std::array<std::int64_t, 16> kEdges{0,
                                                      1,
                                                      -1,
                                                      127,
                                                      128,
                                                      255,
                                                      256,
                                                      65535,
                                                      65536,
                                                      std::numeric_limits<std::int32_t>::max(),
                                                      std::numeric_limits<std::int32_t>::min(),
                                                      std::numeric_limits<std::uint32_t>::max(),
                                                      std::int64_t{1} << 32,
                                                      std::numeric_limits<std::int64_t>::max(),
                                                      std::numeric_limits<std::int64_t>::min(),
                                                      std::numeric_limits<std::int64_t>::min() + 1};
        return chance(2) ? oneOf(kEdges) : std::bit_cast<std::int64_t>(bits() >> below(64));
    }

    double float64() {
        using Limits = std::numeric_limits<double>;
        constexpr std::array<double, 14> kEdges{0.0,
                                                -0.0,
                                                1.0,
                                                -1.5,
                                                0.1,
                                                1e15,
                                                1e17,
                                                Limits::max(),
                                                Limits::lowest(),
                                                Limits::min(),
                                                Limits::denorm_min(),
                                                Limits::infinity(),
                                                -Limits::infinity(),
                                                Limits::quiet_NaN()};
        return chance(2) ? oneOf(kEdges) : std::bit_cast<double>(bits());
    }

    float float32() {
        using Limits = std::numeric_limits<float>;
        constexpr std::array<float, 9> kEdges{0.0F,
                                              -0.0F,
                                              0.5F,
                                              1.5F,
                                              Limits::max(),
                                              Limits::denorm_min(),
                                              Limits::infinity(),
                                              -Limits::infinity(),
                                              Limits::quiet_NaN()};
        return chance(2) ? oneOf(kEdges) : std::bit_cast<float>(static_cast<std::uint32_t>(bits()));
    }

    /// Appends a character of one to four bytes.
    void appendCharacter(std::string& out) {
        using namespace std::string_literals;
        static const std::array<std::string, 12> kCharacters{"a"s,
                                                             "\0"s,
                                                             "\x7F"s,
                                                             "\n"s,
                                                             "\""s,
                                                             "$"s,
                                                             "\xC2\x80"s,
                                                             "\xC3\xA9"s,
                                                             "\xE2\x82\xAC"s,
                                                             "\xEF\xBF\xBF"s,
                                                             "\xF0\x9F\x8E\xAC"s,
                                                             "\xF4\x8F\xBF\xBF"s};
        out += oneOf(kCharacters);
    }

    std::string text() {
        // Texts of the archive's own, and lengths at which the form of the archive changes.
        static const std::array<std::string, 10> kOwn{"",        "$null",    "$class", "NS.keys",  "NS.objects",
                                                      "NSArray", "bplist00", "{1, 2}", "NSString", "/Movies/a.mov"};
        constexpr std::array<std::size_t, 8> kLengths{1, 2, 14, 15, 16, 255, 256, 300};
        if (chance(3)) {
            return oneOf(kOwn);
        }
        const std::size_t length = chance(4) ? oneOf(kLengths) : below(12);
        if (chance(2)) {
            return std::string(length, static_cast<char>('a' + below(26)));
        }
        std::string out;
        for (std::size_t i = 0; i < length; ++i) {
            appendCharacter(out);
        }
        return out;
    }

    Data data() {
        constexpr std::array<std::size_t, 6> kLengths{0, 1, 14, 15, 255, 5000};
        Data out(chance(4) ? oneOf(kLengths) : below(20));
        for (auto& byte : out) {
            byte = static_cast<std::byte>(bits());
        }
        return out;
    }

    /// The number of elements of a container: mostly few, sometimes none, rarely more than a byte can refer to.
    std::size_t count() { return chance(200) ? 300 : below(5); }

    Value array(int depth) {
        Array out;
        for (std::size_t left = count(); left > 0; --left) {
            out.push_back(value(depth));
        }
        return Value(std::move(out));
    }

    std::shared_ptr<Dictionary> entries(int depth) {
        Dictionary out;
        for (std::size_t left = count(); left > 0; --left) {
            out.set(text(), value(depth));
        }
        std::vector<Dictionary::Entry> all(out.begin(), out.end());
        return std::make_shared<Dictionary>(Dictionary::fromEntries(
            std::move(all), chance(2) ? Dictionary::Mutability::Mutable : Dictionary::Mutability::Immutable));
    }

    std::shared_ptr<const Error> error(int depth) {
        return std::make_shared<const Error>(text(), integer(),
                                             chance(4) ? nullptr : Value::DictionaryRef(entries(depth)));
    }

    template <typename T>
    Value parameters() {
        const auto made = T::encodingParametersWithData(chance(2) ? std::make_shared<const Data>(data()) : nullptr);
        made->setCodec(static_cast<std::uint32_t>(bits()));
        made->setQuality(float32());
        if constexpr (requires { made->setFps(0.0F); }) {
            made->setFps(float32());
        }
        return Value(Value::ObjectRef(made));
    }

    std::mt19937_64 random_;
    std::vector<Value> made_;
};

}  // namespace krv::test
