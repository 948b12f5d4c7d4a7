#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <KRVQTProcessClient/Foundation/ArchiveCost.h>
#include <KRVQTProcessClient/Foundation/BinaryPropertyList.h>
#include <KRVQTProcessClient/Foundation/Dictionary.h>
#include <KRVQTProcessClient/Foundation/Error.h>
#include <KRVQTProcessClient/Foundation/KeyedUnarchiver.h>

namespace krv {

using plist::Node;
using plist::refuse;
using plist::Type;

namespace {

/// What is left of what decoding an archive may cost, of one resource.
class Budget {
public:
    explicit Budget(std::uint64_t all)
        : left_(all) {}

    void charge(std::uint64_t cost) {
        if (cost > left_) {
            refuse("archive costs more than its size permits");
        }
        left_ -= cost;
    }

private:
    std::uint64_t left_;
};

/// A comparison of two keys of a large dictionary reads memory that is in no cache.
constexpr std::uint64_t kStepsPerComparison = 2;
constexpr std::uint64_t kManyEntries = 256;

/// The decoding state of one stored object.
struct Slot {
    enum class State : std::uint8_t { New, InProgress, Decoded, ClassName };
    State state = State::New;
    /// Decoded: how many objects are nested in the value, along the longest path. 0 for text, data and numbers.
    std::uint8_t height = 0;
    /// ClassName: the index in the class table, continued by the standard classes.
    std::uint32_t classIndex = 0;
    Value value;
};
static_assert(sizeof(Slot) <= cost::kSlotMemory);

/// The slots of the stored objects, created on first use. Most stored objects are keys, references and lists, which
/// never need one. Each object takes one number here, so the memory is in proportion to the offset table.
class SlotTable {
public:
    /// Pays for each slot from the budget.
    SlotTable(std::uint64_t count, Budget& memory)
        : memory_(memory)
        , numbers_(paid(count, memory), 0) {}

    /// Returns a reference that stays valid.
    Slot& operator[](std::uint64_t index) {
        std::uint32_t& number = numbers_[static_cast<std::size_t>(index)];
        if (number == 0) {
            memory_.charge(cost::kSlotMemory);
            number = add();
        }
        const std::size_t place = number - 1;
        return place < kFirstSize ? first_[place]
                                  : (*pages_[(place - kFirstSize) / kPageSize])[(place - kFirstSize) % kPageSize];
    }

private:
    using Number = std::uint32_t;
    static std::size_t paid(std::uint64_t count, Budget& memory) {
        if (count >= std::numeric_limits<Number>::max()) {
            refuse("too many objects");
        }
        memory.charge(count * cost::kNumberMemory);
        return static_cast<std::size_t>(count);
    }

    /// The number of slots of a small record.
    static constexpr std::size_t kFirstSize = 32;
    static constexpr std::size_t kPageSize = 32;
    using Page = std::array<Slot, kPageSize>;

    Number add() {
        if (used_ >= kFirstSize && (used_ - kFirstSize) % kPageSize == 0) {
            pages_.push_back(std::make_unique<Page>());
        }
        return ++used_;
    }

    Budget& memory_;
    /// By index of the stored object: the number of its slot, counted from 1; 0 if it has none.
    std::vector<Number> numbers_;
    Number used_ = 0;
    std::array<Slot, kFirstSize> first_;
    std::vector<std::unique_ptr<Page>> pages_;
};

enum class Standard : std::uint8_t {
    MutableString,
    Data,
    Date,
    Null,
    Array,
    Dictionary,
    MutableDictionary,
    Error,
    Value
};

struct StandardClass {
    std::string_view name;
    Standard kind;
};

constexpr std::array<StandardClass, 11> kStandardClasses{{
    {"NSDictionary", Standard::Dictionary},
    {"NSMutableDictionary", Standard::MutableDictionary},
    {"NSArray", Standard::Array},
    {"NSMutableArray", Standard::Array},
    {"NSError", Standard::Error},
    {"NSValue", Standard::Value},
    {"NSDate", Standard::Date},
    {"NSNull", Standard::Null},
    {"NSMutableString", Standard::MutableString},
    {"NSMutableData", Standard::Data},
    {"NSData", Standard::Data},
}};

/// Parses "{w, h}".
Size sizeFromText(std::string_view text) {
    // Longer than any two numbers that are written in full. Many objects may share one text.
    constexpr std::size_t kLongest = 128;
    if (text.size() > kLongest) {
        refuse("size is not of the form {w, h}");
    }
    Size size;
    const char* p = text.data();
    const char* const end = p + text.size();
    const auto expect = [&](char c) {
        if (p == end || *p++ != c) {
            refuse("size is not of the form {w, h}");
        }
    };
    const auto number = [&](double& v) {
        const auto [next, failure] = std::from_chars(p, end, v);
        if (failure != std::errc()) {
            refuse("size is not of the form {w, h}");
        }
        p = next;
    };
    expect('{');
    number(size.width);
    expect(',');
    while (p != end && *p == ' ') {
        ++p;
    }
    number(size.height);
    expect('}');
    if (p != end) {
        refuse("size is not of the form {w, h}");
    }
    return size;
}

}  // namespace

class KeyedUnarchiver::Decoder {
public:
    Decoder(std::span<const std::byte> bytes, std::span<const ArchivableClass> classes)
        : reader_(bytes)
        , classes_(classes)
        , memory_(cost::memoryBudget(bytes.size()))
        , steps_(cost::stepsBudget(bytes.size()))
        , slots_(reader_.objectCount(), memory_) {
        fields_.reserve(kFewFields);
    }

    Value root() {
        const Node top = reader_.node(reader_.topObject());
        if (top.type != Type::Dictionary) {
            refuse("top object is not a dictionary");
        }
        const Node version = requiredField(top, "$version");
        if (version.type != Type::Integer || version.integer() != 100000) {
            refuse("unsupported archive version");
        }
        if (text(requiredField(top, "$archiver")) != "NSKeyedArchiver") {
            refuse("written by another archiver");
        }
        objects_ = requiredField(top, "$objects");
        if (objects_.type != Type::Array || objects_.count == 0 ||
            reader_.asciiText(reader_.reference(objects_, 0)) != "$null") {
            refuse("missing objects");
        }
        const Node tops = requiredField(top, "$top");
        if (tops.type != Type::Dictionary) {
            refuse("missing root");
        }
        const Node root = requiredField(tops, "root");
        if (root.type != Type::Uid || root.bits == 0) {
            refuse("missing root");
        }
        return object(root.bits);
    }

    // Called by initWithCoder for the object that is being decoded.

    [[nodiscard]] std::optional<Node> field(std::string_view key) {
        const std::size_t count = fields_.size() - firstField_;
        // Most archives contain the keys in the order in which they are read, so continue after the last hit.
        for (std::size_t n = 0; n < count; ++n) {
            if (nextField_ >= fields_.size()) {
                nextField_ = firstField_;
            }
            const Field& field = fields_[nextField_++];
            if (field.key == key) {
                return reader_.node(field.value);
            }
        }
        return std::nullopt;
    }

    [[nodiscard]] static bool isNull(const std::optional<Node>& node) {
        return !node || (node->type == Type::Uid && node->bits == 0);
    }

    const Value& reference(const Node& node) {
        static const Value null;
        if (node.type != Type::Uid) {
            refuse("expected a reference, found an inline value");
        }
        return node.bits == 0 ? null : object(node.bits);
    }

    std::shared_ptr<Dictionary> mutableDictionary(const std::optional<Node>& node) {
        const Value value = node ? reference(*node) : Value();
        if (value.isNull()) {
            // An empty dictionary takes the place of null, and is an object when it is written.
            nest(1);
            return std::make_shared<Dictionary>();
        }
        const Value::DictionaryRef stored = value.dictionary();
        if (!stored) {
            refuse("object of the wrong kind");
        }
        memory_.charge(cost::copyMemory(stored->size()));
        steps_.charge(stored->size());
        return std::make_shared<Dictionary>(stored->mutableCopy());
    }

private:
    struct Field {
        std::string_view key;
        std::uint64_t value;
    };

    /// Notes that the object that is being decoded contains one of this height. Containers may be shared, so the depth
    /// at which one was first reached says nothing about where else it is.
    void nest(int height) {
        if (depth_ + height > kMaximumArchiveDepth) {
            refuse("objects nested too deeply");
        }
        height_ = std::max(height_, height);
    }

    /// Grows a list to take one more element, but never beyond count.
    template <typename T>
    static void growFor(std::vector<T>& list, std::uint64_t count) {
        if (list.size() == list.capacity()) {
            const std::size_t wanted = std::max(kFewEntries, 2 * list.size());
            list.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(count, wanted)));
        }
    }

    static std::string_view text(const Node& node) {
        return node.type == Type::Ascii ? node.ascii() : std::string_view();
    }

    /// Refuses other bytes in ASCII text, so that all decoded text is UTF-8.
    static void requireAscii(std::string_view text) {
        unsigned char seen = 0;
        for (const char c : text) {
            seen = static_cast<unsigned char>(seen | static_cast<unsigned char>(c));
        }
        if (seen >= 0x80) {
            refuse("ASCII text contains other bytes");
        }
    }

    std::optional<Node> findField(const Node& dictionary, std::string_view key) {
        for (std::uint64_t i = 0; i < dictionary.count; ++i) {
            steps_.charge(1);
            if (reader_.asciiText(reader_.reference(dictionary, i)) == key) {
                return reader_.node(reader_.reference(dictionary, dictionary.count + i));
            }
        }
        return std::nullopt;
    }

    Node requiredField(const Node& dictionary, std::string_view key) {
        const std::optional<Node> node = findField(dictionary, key);
        if (!node) {
            refuse("missing field");
        }
        return *node;
    }

    /// Returns the object with this number in "$objects". The reference stays valid.
    const Value& object(std::uint64_t uid) { return stored(storedIndex(uid)); }

    std::uint64_t storedIndex(std::uint64_t uid) const {
        if (uid >= objects_.count) {
            refuse("reference to a missing object");
        }
        return reader_.reference(objects_, uid);
    }

    /// Returns a stored object as a value, and decodes it on first use.
    const Value& stored(std::uint64_t index) {
        Slot& slot = slots_[index];
        switch (slot.state) {
        case Slot::State::Decoded:
            nest(slot.height);
            return slot.value;
        case Slot::State::InProgress:
            refuse("object contains itself");
        case Slot::State::ClassName:
            refuse("expected an object, found a class");
        case Slot::State::New:
            break;
        }
        slot.state = Slot::State::InProgress;
        const int outerHeight = std::exchange(height_, 0);
        slot.value = decode(reader_.node(index));
        slot.height = static_cast<std::uint8_t>(height_);
        height_ = std::max(outerHeight, height_);
        slot.state = Slot::State::Decoded;
        return slot.value;
    }

    Value decode(const Node& node) {
        switch (node.type) {
        case Type::Boolean:
            return Value(node.bits != 0);
        case Type::Integer:
            return Value(node.integer());
        case Type::Real32:
            return Value(node.real32());
        case Type::Real64:
            return Value(node.real());
        case Type::Date:
            nest(1);  // archives that we write contain it as an object
            return Value(Date{node.real()});
        case Type::Data: {
            memory_.charge(cost::kObjectMemory + node.count);
            const auto* p = reinterpret_cast<const std::byte*>(node.body);
            return Value(Data(p, p + node.count));
        }
        case Type::Ascii:
            memory_.charge(cost::kObjectMemory + node.count);
            requireAscii(text(node));
            return Value(text(node));
        case Type::Utf16:
            steps_.charge(node.count / cost::kTextPerStep);
            memory_.charge(cost::kObjectMemory + plist::utf8Length(node.body, node.count));
            return Value(plist::utf8FromUtf16(node.body, node.count));
        case Type::Dictionary:
            return instance(node);
        case Type::Uid:
        case Type::Array:
            break;
        }
        refuse("expected an object");
    }

    Value instance(const Node& node) {
        nest(1);
        ++depth_;
        height_ = 0;
        const std::uint32_t index = classIndex(node);
        Value value = index < classes_.size() ? archivable(node, classes_[index])
                                              : standard(node, kStandardClasses[index - classes_.size()].kind);
        --depth_;
        ++height_;
        return value;
    }

    /// Returns the "$class" of an object. Archivers write it last, so the search starts at the end.
    Node classField(const Node& node) {
        for (std::uint64_t i = node.count; i-- > 0;) {
            steps_.charge(1);
            if (reader_.asciiText(reader_.reference(node, i)) == "$class") {
                return reader_.node(reader_.reference(node, node.count + i));
            }
        }
        refuse("object without a class");
    }

    std::uint32_t classIndex(const Node& node) {
        const Node uid = classField(node);
        if (uid.type != Type::Uid || uid.bits == 0 || uid.bits >= objects_.count) {
            refuse("object without a class");
        }
        const std::uint64_t index = reader_.reference(objects_, uid.bits);
        Slot& slot = slots_[index];
        if (slot.state == Slot::State::New) {
            const Node description = reader_.node(index);
            if (description.type != Type::Dictionary) {
                refuse("class is not a class description");
            }
            slot.classIndex = classNamed(text(requiredField(description, "$classname")));
            slot.state = Slot::State::ClassName;
        } else if (slot.state != Slot::State::ClassName) {
            refuse("class is not a class description");
        }
        return slot.classIndex;
    }

    std::uint32_t classNamed(std::string_view name) {
        std::uint32_t index = 0;
        for (const ArchivableClass& each : classes_) {
            if (each.name == name) {
                return index;
            }
            ++index;
        }
        for (const StandardClass& each : kStandardClasses) {
            if (each.name == name) {
                return index;
            }
            ++index;
        }
        refuse("object of an unknown class");
    }

    Value archivable(const Node& node, const ArchivableClass& known) {
        steps_.charge(node.count);
        memory_.charge(cost::kArchivableMemory);
        // The fields of an object follow those of the object that contains it.
        const std::size_t outerFirst = std::exchange(firstField_, fields_.size());
        const std::size_t outerNext = std::exchange(nextField_, fields_.size());
        for (std::uint64_t i = 0; i < node.count; ++i) {
            const std::string_view key = reader_.asciiText(reader_.reference(node, i));
            // No class of ours has more keys than this.
            if (!key.empty() && fields_.size() - firstField_ < kMostFields) {
                fields_.push_back({key, reader_.reference(node, node.count + i)});
            }
        }
        KeyedUnarchiver coder(*this);
        std::shared_ptr<Archivable> object = known.initWithCoder(coder);
        fields_.resize(firstField_);
        firstField_ = outerFirst;
        nextField_ = outerNext;
        return Value(Value::ObjectRef(std::move(object)));
    }

    Value standard(const Node& node, Standard kind) {
        switch (kind) {
        case Standard::Null:
            return {};
        case Standard::MutableString: {
            const Value& value = inlineObject(node, "NS.string");
            if (value.kind() != Value::Kind::String) {
                refuse("string without text");
            }
            return value;
        }
        case Standard::Data: {
            const Value& value = inlineObject(node, "NS.data");
            if (value.kind() != Value::Kind::Data) {
                refuse("data without bytes");
            }
            return value;
        }
        case Standard::Date: {
            const Node time = requiredField(node, "NS.time");
            if (time.type == Type::Integer) {
                return Value(Date{static_cast<double>(time.integer())});
            }
            if (time.type != Type::Real32 && time.type != Type::Real64) {
                refuse("date without a time");
            }
            return Value(Date{time.real()});
        }
        case Standard::Value: {
            constexpr std::int64_t kSizeKind = 2;
            const Node special = requiredField(node, "NS.special");
            const Value& sizeText = reference(requiredField(node, "NS.sizeval"));
            if (special.type != Type::Integer || special.integer() != kSizeKind ||
                sizeText.kind() != Value::Kind::String) {
                refuse("value object is not a size");
            }
            return Value(sizeFromText(sizeText.stringValue()));
        }
        case Standard::Array: {
            Array array;
            const Node elements = list(node, "NS.objects");
            memory_.charge(cost::arrayMemory(elements.count));
            for (std::uint64_t i = 0; i < elements.count; ++i) {
                growFor(array, elements.count);
                lookAhead(elements, i);
                array.push_back(element(elements, i));
            }
            return Value(std::move(array));
        }
        case Standard::Dictionary:
            return dictionary(node, Dictionary::Mutability::Immutable);
        case Standard::MutableDictionary:
            return dictionary(node, Dictionary::Mutability::Mutable);
        case Standard::Error:
            return error(node);
        }
        refuse("object of an unknown class");
    }

    /// Returns a string or data that is stored in the object itself. Found by its number, so that it is decoded only
    /// once even if many objects refer to it.
    const Value& inlineObject(const Node& node, std::string_view key) {
        for (std::uint64_t i = 0; i < node.count; ++i) {
            steps_.charge(1);
            if (reader_.asciiText(reader_.reference(node, i)) == key) {
                const std::uint64_t index = reader_.reference(node, node.count + i);
                const Type type = reader_.node(index).type;
                if (type == Type::Ascii || type == Type::Utf16 || type == Type::Data) {
                    return stored(index);
                }
                break;
            }
        }
        refuse("object without its contents");
    }

    Node list(const Node& node, std::string_view key) {
        const Node elements = requiredField(node, key);
        if (elements.type != Type::Array) {
            refuse("container without its list");
        }
        steps_.charge(elements.count);
        return elements;
    }

    /// Returns the index of the stored object to which the i-th element of a list refers.
    std::uint64_t elementIndex(const Node& elements, std::uint64_t i) const {
        const std::uint64_t uid = reader_.uid(reader_.reference(elements, i));
        if (uid == 0) {
            refuse("element is not a reference to an object");
        }
        return storedIndex(uid);
    }

    /// Has the processor load what the elements after the i-th one refer to. Where they are scattered, waiting for
    /// memory would take most of the time. Short lists need not be fast.
    void lookAhead(const Node& elements, std::uint64_t i) const {
        constexpr std::uint64_t kReference = 16;
        constexpr std::uint64_t kObject = 8;
        if (elements.count - i > kReference) {
            reader_.prefetch(reader_.reference(elements, i + kReference));
            reader_.prefetch(elementIndex(elements, i + kObject));
        }
    }

    /// Returns the value of the i-th element of a list. Decoding a number again is faster than keeping it.
    Value element(const Node& elements, std::uint64_t i) {
        const std::uint64_t index = elementIndex(elements, i);
        return reader_.isNumber(index) ? decode(reader_.node(index)) : stored(index);
    }

    Value dictionary(const Node& node, Dictionary::Mutability mutability) {
        const Node keys = list(node, "NS.keys");
        const Node objects = list(node, "NS.objects");
        if (keys.count != objects.count) {
            refuse("different numbers of keys and values");
        }
        memory_.charge(cost::dictionaryMemory(keys.count));
        const std::uint64_t comparisons = cost::comparisonsPerKey(keys.count);
        bool sorted = true;
        std::vector<Dictionary::Entry> entries;
        for (std::uint64_t i = 0; i < keys.count; ++i) {
            lookAhead(keys, i);
            lookAhead(objects, i);
            Value::StringRef key = stored(elementIndex(keys, i)).string();
            if (!key) {
                refuse("key is not a string");
            }
            if (!entries.empty() && entries.back().first != key) {
                const std::string& previous = *entries.back().first;
                steps_.charge(cost::comparisonSteps(previous.size(), key->size(), comparisons));
                if (sorted && keys.count >= kManyEntries && *key < previous) {
                    sorted = false;
                    steps_.charge(kStepsPerComparison * comparisons * keys.count);
                }
            }
            growFor(entries, keys.count);
            entries.emplace_back(std::move(key), element(objects, i));
        }
        return Value(Dictionary::fromEntries(std::move(entries), mutability));
    }

    Value error(const Node& node) {
        const Value& domain = reference(requiredField(node, "NSDomain"));
        const Node code = requiredField(node, "NSCode");
        const std::optional<Node> userInfoField = findField(node, "NSUserInfo");
        const Value userInfo = userInfoField ? reference(*userInfoField) : Value();
        if (domain.kind() != Value::Kind::String || code.type != Type::Integer ||
            (!userInfo.isNull() && userInfo.kind() != Value::Kind::Dictionary)) {
            refuse("invalid error record");
        }
        memory_.charge(cost::kErrorMemory);
        return Value(std::make_shared<const Error>(domain.string(), code.integer(), userInfo.dictionary()));
    }

    static constexpr std::size_t kMostFields = 32;
    /// The number of fields of a record together with its parameters.
    static constexpr std::size_t kFewFields = 24;
    /// The size of most containers. Larger ones grow as they are read.
    static constexpr std::size_t kFewEntries = 16;

    plist::Reader reader_;
    std::span<const ArchivableClass> classes_;
    Budget memory_;
    Budget steps_;
    SlotTable slots_;
    Node objects_{};
    /// How many objects contain the one that is being decoded, itself included.
    int depth_ = 0;
    /// The greatest height of the objects that it contains.
    int height_ = 0;
    std::vector<Field> fields_;
    std::size_t firstField_ = 0;
    std::size_t nextField_ = 0;
};

Value KeyedUnarchiver::unarchive(std::span<const std::byte> bytes, std::span<const ArchivableClass> classes) {
    return Decoder(bytes, classes).root();
}

bool KeyedUnarchiver::decodeBool(std::string_view key) {
    const auto node = decoder_.field(key);
    if (Decoder::isNull(node)) {
        return false;
    }
    if (node->type != Type::Boolean && (node->type != Type::Integer || node->bits > 1)) {
        refuse("expected a boolean");
    }
    return node->bits != 0;
}

std::int32_t KeyedUnarchiver::decodeInt32(std::string_view key) {
    const auto node = decoder_.field(key);
    if (Decoder::isNull(node)) {
        return 0;
    }
    if (node->type != Type::Integer || node->integer() < std::numeric_limits<std::int32_t>::min() ||
        node->integer() > std::numeric_limits<std::uint32_t>::max()) {
        refuse("integer does not fit in 32 bits");
    }
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(node->bits));
}

float KeyedUnarchiver::decodeFloat(std::string_view key) {
    const auto node = decoder_.field(key);
    if (Decoder::isNull(node)) {
        return 0.0F;
    }
    switch (node->type) {
    case Type::Real32:
    case Type::Real64:
        return node->real32();
    case Type::Integer:
        return static_cast<float>(node->integer());
    default:
        refuse("expected a number");
    }
}

Value KeyedUnarchiver::decodeObject(std::string_view key) {
    const auto node = decoder_.field(key);
    return node ? decoder_.reference(*node) : Value();
}

std::shared_ptr<Dictionary> KeyedUnarchiver::decodeMutableDictionary(std::string_view key) {
    return decoder_.mutableDictionary(decoder_.field(key));
}

Value KeyedUnarchiver::decodeObject(std::string_view key, Value::Kind kind) {
    Value value = decodeObject(key);
    if (!value.isNull() && value.kind() != kind) {
        refuse("object of the wrong kind");
    }
    return value;
}

}  // namespace krv
