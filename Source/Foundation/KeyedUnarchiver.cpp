#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <KRVQTProcessClient/Foundation/ArchiveCost.h>
#include <KRVQTProcessClient/Foundation/BinaryPropertyList.h>
#include <KRVQTProcessClient/Foundation/Dictionary.h>
#include <KRVQTProcessClient/Foundation/Error.h>
#include <KRVQTProcessClient/Foundation/KeyCache.h>
#include <KRVQTProcessClient/Foundation/KeyedUnarchiver.h>
#include <KRVQTProcessClient/Foundation/ThreadOwned.h>

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

/// Up to kCapacity elements, created one after another in place. References to them stay valid.
template <typename T, std::size_t kCapacity>
class InlineList {
public:
    InlineList() noexcept {}
    ~InlineList() {
        for (std::size_t i = 0; i < size_; ++i) {
            std::destroy_at(&places_[i].element);
        }
    }
    InlineList(const InlineList&) = delete;
    InlineList& operator=(const InlineList&) = delete;

    /// Creates an element with what make() returns. The list must not be full.
    template <typename Make>
    T& add(const Make& make) {
        T* const added = ::new (static_cast<void*>(&places_[size_].element)) T(make());
        ++size_;
        return *added;
    }
    [[nodiscard]] T& operator[](std::size_t i) { return places_[i].element; }
    [[nodiscard]] std::size_t size() const { return size_; }
    [[nodiscard]] bool full() const { return size_ == kCapacity; }

private:
    union Place {
        Place() noexcept {}
        ~Place() {}
        T element;
    };
    std::array<Place, kCapacity> places_;
    std::size_t size_ = 0;
};

/// The decoding state of one stored object.
struct Slot {
    /// Lent: decoded, and the value is the dictionary that an object got from decodeMutableDictionary.
    enum class State : std::uint8_t { InProgress, Decoded, Lent, ClassName };
    State state = State::InProgress;
    /// Decoded, Lent: how many objects are nested in the value, along the longest path. 0 for text, data and numbers.
    std::uint8_t height = 0;
    /// Lent: the kind of the stored dictionary.
    Dictionary::Mutability mutability = Dictionary::Mutability::Mutable;
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
        : memory_(memory) {
        if (count >= std::numeric_limits<Number>::max()) {
            refuse("too many objects");
        }
        memory.charge(count * cost::kNumberMemory);
        if (count <= kFewNumbers) {
            std::fill_n(fewNumbers_.begin(), count, Number{0});
            numbers_ = fewNumbers_.data();
        } else {
            manyNumbers_.resize(static_cast<std::size_t>(count));
            numbers_ = manyNumbers_.data();
        }
    }

    /// Returns the slot of the stored object, which stays valid; nullptr if it has none.
    Slot* find(std::uint64_t index) {
        const Number number = numbers_[static_cast<std::size_t>(index)];
        if (number == 0) {
            return nullptr;
        }
        const std::size_t place = number - 1;
        return place < kPageSize ? &first_[place] : &(*pages_[place / kPageSize - 1])[place % kPageSize];
    }

    /// Pays for the slot of an object that has none, and creates it with what make() returns, in place. make() must not
    /// add slots.
    template <typename Make>
    Slot& add(std::uint64_t index, const Make& make) {
        memory_.charge(cost::kSlotMemory);
        Slot& slot = vacantPage().add(make);
        numbers_[static_cast<std::size_t>(index)] = ++used_;
        return slot;
    }

private:
    using Number = std::uint32_t;
    /// The number of slots of a small record.
    static constexpr std::size_t kPageSize = 32;
    using Page = InlineList<Slot, kPageSize>;
    /// The number of stored objects of a small record.
    static constexpr std::size_t kFewNumbers = 128;

    Page& vacantPage() {
        if (!first_.full()) {
            return first_;
        }
        if (pages_.empty() || pages_.back()->full()) {
            pages_.push_back(std::make_unique<Page>());
        }
        return *pages_.back();
    }

    Budget& memory_;
    /// By index of the stored object: the number of its slot, counted from 1; 0 if it has none.
    Number* numbers_;
    std::array<Number, kFewNumbers> fewNumbers_;
    std::vector<Number> manyNumbers_;
    Number used_ = 0;
    Page first_;
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
        // Most sizes are whole numbers of a few digits, which are exact.
        constexpr std::ptrdiff_t kFewDigits = 9;
        std::uint32_t whole = 0;
        const char* digit = p;
        while (digit != end && *digit >= '0' && *digit <= '9' && digit - p < kFewDigits) {
            whole = 10 * whole + static_cast<std::uint32_t>(*digit++ - '0');
        }
        if (digit != p && digit != end && (*digit == ',' || *digit == '}')) {
            v = whole;
            p = digit;
            return;
        }
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
    Decoder(std::span<const std::byte> bytes, std::span<const ArchivableClass> classes, KeyCache& keys)
        : reader_(bytes)
        , classes_(classes)
        , memory_(cost::memoryBudget(bytes.size()))
        , steps_(cost::stepsBudget(bytes.size()))
        , slots_(reader_.objectCount(), memory_)
        , keys_(keys) {}

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

    /// Returns the value of a field; the null reference if there is none.
    [[nodiscard]] Node field(std::string_view key) {
        FieldList& fields = *fields_;
        // Most archives contain the keys in the order in which they are read, so continue after the last hit.
        for (std::size_t n = 0; n < fields.list.size(); ++n) {
            if (fields.next == fields.list.size()) {
                fields.next = 0;
            }
            const Field& field = fields.list[fields.next++];
            if (field.key == key) {
                return reader_.node(field.value);
            }
        }
        return {Type::Uid, 0, nullptr, 0};
    }

    [[nodiscard]] static bool isNull(const Node& node) { return node.type == Type::Uid && node.bits == 0; }

    const Value& reference(const Node& node) {
        static const Value null;
        requireReference(node);
        return node.bits == 0 ? null : object(node.bits);
    }

    std::shared_ptr<Dictionary> mutableDictionary(const Node& node) {
        if (isNull(node)) {
            return emptyDictionary();
        }
        requireReference(node);
        const std::uint64_t index = storedIndex(node.bits);
        const bool isFirst = !slots_.find(index);
        const Value& value = stored(index);
        if (value.isNull()) {
            return emptyDictionary();
        }
        const Value::DictionaryRef dictionary = value.dictionary();
        if (!dictionary) {
            refuse("object of the wrong kind");
        }
        memory_.charge(cost::copyMemory(dictionary->size()));
        steps_.charge(dictionary->size());
        if (!isFirst) {
            chargeSeparation(*dictionary);
        }
        return isFirst ? lent(*slots_.find(index)) : std::make_shared<Dictionary>(dictionary->mutableCopy());
    }

private:
    struct Field {
        std::string_view key;
        std::uint64_t value;
    };
    /// No class of ours has more keys than this.
    static constexpr std::size_t kMostFields = 32;
    /// The fields of the object that is being decoded.
    struct FieldList {
        InlineList<Field, kMostFields> list;
        /// Where the next search starts.
        std::size_t next = 0;
    };
    /// Makes a list the current one for its own lifetime.
    class CurrentFields {
    public:
        CurrentFields(FieldList*& current, FieldList& fields)
            : current_(current)
            , outer_(std::exchange(current, &fields)) {}
        ~CurrentFields() { current_ = outer_; }
        CurrentFields(const CurrentFields&) = delete;
        CurrentFields& operator=(const CurrentFields&) = delete;

    private:
        FieldList*& current_;
        FieldList* const outer_;
    };

    /// Returns what takes the place of null, and is an object when it is written.
    std::shared_ptr<Dictionary> emptyDictionary() {
        nest(1);
        return std::make_shared<Dictionary>();
    }

    static void requireReference(const Node& node) {
        if (node.type != Type::Uid) {
            refuse("expected a reference, found an inline value");
        }
    }

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
            const std::size_t wanted = std::max(kFewEntries, 4 * list.size());
            list.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(count, wanted)));
        }
    }

    static std::string_view text(const Node& node) {
        return node.type == Type::Ascii ? node.ascii() : std::string_view();
    }

    /// Refuses other bytes in ASCII text, so that all decoded text is UTF-8.
    static void requireAscii(std::string_view text) {
        std::uint64_t seen = 0;
        const char* p = text.data();
        std::size_t left = text.size();
        for (; left >= 8; left -= 8, p += 8) {
            seen |= plist::load<std::uint64_t>(p);
        }
        for (; left > 0; --left, ++p) {
            seen |= plist::load<std::uint8_t>(p);
        }
        constexpr std::uint64_t kHighBits = 0x8080808080808080U;
        if ((seen & kHighBits) != 0) {
            refuse("ASCII text contains other bytes");
        }
    }

    /// A key of the standard classes.
    struct StandardKey {
        std::string_view text;
        /// The stored object that was found to be this key. Most archives store each key once.
        std::uint64_t index = std::numeric_limits<std::uint64_t>::max();
    };

    [[nodiscard]] bool isKey(std::uint64_t index, StandardKey& key) const {
        if (index == key.index) {
            return true;
        }
        if (reader_.asciiText(index) != key.text) {
            return false;
        }
        key.index = index;
        return true;
    }

    static constexpr std::uint64_t kMissing = std::numeric_limits<std::uint64_t>::max();

    /// Returns the index of the stored object under a key, kMissing if there is none.
    std::uint64_t findField(const Node& dictionary, StandardKey& key) {
        for (std::uint64_t i = 0; i < dictionary.count; ++i) {
            steps_.charge(1);
            if (isKey(reader_.reference(dictionary, i), key)) {
                return reader_.reference(dictionary, dictionary.count + i);
            }
        }
        return kMissing;
    }

    Node requiredField(const Node& dictionary, StandardKey& key) {
        const std::uint64_t index = findField(dictionary, key);
        if (index == kMissing) {
            refuse("missing field");
        }
        return reader_.node(index);
    }

    Node requiredField(const Node& dictionary, std::string_view key) {
        StandardKey once{key};
        return requiredField(dictionary, once);
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
        Slot* const slot = slots_.find(index);
        return slot ? known(*slot) : decoded(index, reader_.node(index));
    }

    /// Returns the value of an object that has a slot.
    const Value& known(Slot& slot) {
        switch (slot.state) {
        case Slot::State::Lent:
            chargeSeparation(*slot.value.dictionary());
            slot.value = Value(copyOfLent(slot));
            slot.state = Slot::State::Decoded;
            [[fallthrough]];
        case Slot::State::Decoded:
            nest(slot.height);
            return slot.value;
        case Slot::State::InProgress:
            refuse("object contains itself");
        case Slot::State::ClassName:
            break;
        }
        refuse("expected an object, found a class");
    }

    /// Charges what a copy of a shared dictionary costs when it is written and read again, as a dictionary of its own.
    void chargeSeparation(const Dictionary& dictionary) {
        const cost::Cost cost = cost::dictionaryCost(dictionary);
        memory_.charge(cost.memory + cost::kSlotMemory);
        steps_.charge(cost.steps + cost::kClassSteps + 2 * dictionary.size());
    }

    /// Gives away a dictionary that has just been decoded, as a mutable one. That makes a copy only if something else
    /// refers to the dictionary, too.
    static std::shared_ptr<Dictionary> lent(Slot& slot) {
        auto dictionary = std::const_pointer_cast<Dictionary>(slot.value.dictionary());
        slot.state = Slot::State::Lent;
        slot.mutability = dictionary->mutability();
        *dictionary = std::move(*dictionary).mutableCopy();
        return dictionary;
    }

    static Value::DictionaryRef copyOfLent(const Slot& slot) {
        const Dictionary& lent = *slot.value.dictionary();
        return std::make_shared<const Dictionary>(Dictionary::fromEntries({lent.begin(), lent.end()}, slot.mutability));
    }

    /// Decodes a stored object that has no slot yet.
    const Value& decoded(std::uint64_t index, const Node& node) {
        if (node.type == Type::Dictionary) {
            return decodedObject(index, node).value;
        }
        // Archives that we write contain a date as an object.
        const std::uint8_t height = node.type == Type::Date ? 1 : 0;
        nest(height);
        return slots_.add(index, [&] { return Slot{.state = kDecoded, .height = height, .value = leaf(node)}; }).value;
    }

    /// The same for a text that is the key of a dictionary.
    const Value& decodedKey(std::uint64_t index) {
        const Node node = reader_.node(index);
        if (node.type == Type::Ascii && node.count <= KeyCache::kLongest) {
            const plist::TextScan scanned = plist::scan(text(node), seed_);
            if (scanned.ascii) {
                memory_.charge(cost::kObjectMemory + node.count);
                return slots_
                    .add(index, [&] { return Slot{.state = kDecoded, .value = keys_.shared(text(node), scanned)}; })
                    .value;
            }
        }
        return decoded(index, node);
    }

    Slot& decodedObject(std::uint64_t index, const Node& node) {
        Slot& slot = slots_.add(index, [] { return Slot(); });
        const int outerHeight = std::exchange(height_, 0);
        slot.value = instance(node);
        slot.height = static_cast<std::uint8_t>(height_);
        height_ = std::max(outerHeight, height_);
        slot.state = Slot::State::Decoded;
        return slot;
    }

    /// Returns the value of an object that contains no others.
    Value leaf(const Node& node) {
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

    /// Returns the number of an object's "$class", 0 if it is not a reference. Archivers write it last, so the search starts at the end.
    std::uint64_t classField(const Node& node) {
        for (std::uint64_t i = node.count; i-- > 0;) {
            steps_.charge(1);
            if (isKey(reader_.reference(node, i), classKey_)) {
                return reader_.uid(reader_.reference(node, node.count + i));
            }
        }
        refuse("object without a class");
    }

    std::uint32_t classIndex(const Node& node) {
        const std::uint64_t uid = classField(node);
        if (uid == 0 || uid >= objects_.count) {
            refuse("object without a class");
        }
        const std::uint64_t index = reader_.reference(objects_, uid);
        if (const Slot* const slot = slots_.find(index)) {
            if (slot->state != Slot::State::ClassName) {
                refuse("class is not a class description");
            }
            return slot->classIndex;
        }
        const Node description = reader_.node(index);
        if (description.type != Type::Dictionary) {
            refuse("class is not a class description");
        }
        const std::uint32_t known = classNamed(text(requiredField(description, classNameKey_)));
        slots_.add(index, [&] { return Slot{.state = Slot::State::ClassName, .classIndex = known, .value = {}}; });
        return known;
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
        const cost::Cost missing = cost::missingFieldsCost(known.fields - std::min(node.count, known.fields));
        steps_.charge(node.count + missing.steps);
        memory_.charge(cost::kArchivableMemory + missing.memory);
        FieldList fields;
        for (std::uint64_t i = 0; i < node.count; ++i) {
            const std::string_view key = reader_.asciiText(reader_.reference(node, i));
            if (!key.empty() && !fields.list.full()) {
                fields.list.add([&] { return Field{key, reader_.reference(node, node.count + i)}; });
            }
        }
        const CurrentFields current(fields_, fields);
        KeyedUnarchiver coder(*this);
        return Value(Value::ObjectRef(known.initWithCoder(coder)));
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
            const Node elements = list(node, objectsKey_);
            memory_.charge(cost::arrayMemory(elements.count));
            Block block(*this, elements);
            for (std::uint64_t i = 0; i < elements.count; ++i) {
                growFor(array, elements.count);
                element(block[i], [&array](const auto& value) { array.emplace_back(value); });
            }
            return Value(std::make_shared<const Array>(std::move(array)));
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

    Node list(const Node& node, StandardKey& key) {
        const Node elements = requiredField(node, key);
        if (elements.type != Type::Array) {
            refuse("container without its list");
        }
        steps_.charge(elements.count);
        return elements;
    }

    /// Returns the index of the stored object to which the reference with this index leads.
    std::uint64_t elementIndex(std::uint64_t reference) const {
        const std::uint64_t uid = reader_.uid(reference);
        if (uid == 0) {
            refuse("element is not a reference to an object");
        }
        return storedIndex(uid);
    }

    /// How many elements of a list are looked up before the first of them is decoded.
    static constexpr std::size_t kBlock = 16;

    /// Some elements of a list: the indexes of the stored objects to which they refer.
    class Block {
    public:
        /// Starts at the beginning of the list.
        Block(const Decoder& decoder, const Node& elements)
            : decoder_(decoder)
            , elements_(elements) {}

        /// Returns the index for the i-th element. To be called for each element in order.
        std::uint64_t operator[](std::uint64_t i) {
            if (i % kBlock == 0) {
                fill(i);
            }
            return indexes_[i % kBlock];
        }

    private:
        void fill(std::uint64_t first) {
            const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(kBlock, elements_.count - first));
            const plist::Reader& reader = decoder_.reader_;
            if (reader.byteCount() < kOutOfCache) {
                for (std::size_t i = 0; i < count; ++i) {
                    indexes_[i] = decoder_.elementIndex(reader.reference(elements_, first + i));
                }
                return;
            }
            // Where objects are scattered, waiting for one after the other would take most of the time.
            for (std::size_t i = 0; i < count; ++i) {
                indexes_[i] = reader.reference(elements_, first + i);
                reader.prefetch(indexes_[i]);
            }
            for (std::size_t i = 0; i < count; ++i) {
                indexes_[i] = decoder_.elementIndex(indexes_[i]);
                reader.prefetch(indexes_[i]);
            }
        }

        /// The size of an archive from which on the processor's fast caches do not hold all of it.
        static constexpr std::uint64_t kOutOfCache = 256 << 10;

        const Decoder& decoder_;
        const Node& elements_;
        std::array<std::uint64_t, kBlock> indexes_;
    };

    /// Calls put with an element of a list: a number by itself, anything else as a value. Decoding a number again is
    /// faster than keeping it.
    template <typename Put>
    void element(std::uint64_t index, const Put& put) {
        const Node node = reader_.node(index);
        switch (node.type) {
        case Type::Integer:
            put(node.integer());
            break;
        case Type::Boolean:
            put(node.bits != 0);
            break;
        case Type::Real32:
            put(node.real32());
            break;
        case Type::Real64:
            put(node.real());
            break;
        default:
            Slot* const slot = slots_.find(index);
            put(slot ? known(*slot) : decoded(index, node));
        }
    }

    Value dictionary(const Node& node, Dictionary::Mutability mutability) {
        const Node keys = list(node, keysKey_);
        const Node objects = list(node, objectsKey_);
        if (keys.count != objects.count) {
            refuse("different numbers of keys and values");
        }
        memory_.charge(cost::dictionaryMemory(keys.count));
        const std::uint64_t comparisons = cost::comparisonsPerKey(keys.count);
        bool sorted = true;
        std::vector<Dictionary::Entry> entries;
        Block keyBlock(*this, keys);
        Block objectBlock(*this, objects);
        for (std::uint64_t i = 0; i < keys.count; ++i) {
            Value::StringRef key = keyAt(keyBlock[i]).string();
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
            element(objectBlock[i], [&](const auto& value) { entries.emplace_back(std::move(key), value); });
        }
        // Not a constant, because it may be lent.
        return Value(std::make_shared<Dictionary>(Dictionary::fromEntries(std::move(entries), mutability)));
    }

    const Value& keyAt(std::uint64_t index) {
        Slot* const slot = slots_.find(index);
        return slot ? known(*slot) : decodedKey(index);
    }

    Value error(const Node& node) {
        const Value& domain = reference(requiredField(node, "NSDomain"));
        const Node code = requiredField(node, "NSCode");
        StandardKey userInfoKey{"NSUserInfo"};
        const std::uint64_t userInfoField = findField(node, userInfoKey);
        const Value userInfo = userInfoField != kMissing ? reference(reader_.node(userInfoField)) : Value();
        if (domain.kind() != Value::Kind::String || code.type != Type::Integer ||
            (!userInfo.isNull() && userInfo.kind() != Value::Kind::Dictionary)) {
            refuse("invalid error record");
        }
        memory_.charge(cost::kErrorMemory);
        return Value(std::make_shared<const Error>(domain.string(), code.integer(), userInfo.dictionary()));
    }

    /// The size of most containers. Larger ones grow as they are read.
    static constexpr std::size_t kFewEntries = 16;
    static constexpr Slot::State kDecoded = Slot::State::Decoded;

    plist::Reader reader_;
    std::span<const ArchivableClass> classes_;
    Budget memory_;
    Budget steps_;
    SlotTable slots_;
    KeyCache& keys_;
    const std::uint64_t seed_ = plist::hashSeed();
    Node objects_{};
    StandardKey classKey_{"$class"};
    StandardKey classNameKey_{"$classname"};
    StandardKey keysKey_{"NS.keys"};
    StandardKey objectsKey_{"NS.objects"};
    /// How many objects contain the one that is being decoded, itself included.
    int depth_ = 0;
    /// The greatest height of the objects that it contains.
    int height_ = 0;
    FieldList* fields_ = nullptr;
};

Value KeyedUnarchiver::unarchive(std::span<const std::byte> bytes, std::span<const ArchivableClass> classes) {
    // A thread reuses the keys of its earlier archives. Each thread has a cache of its own, which needs no lock.
    auto* const kept = threadOwned<std::unique_ptr<KeyCache>>();
    std::unique_ptr<KeyCache> own;  // while the thread exits
    std::unique_ptr<KeyCache>& keys = kept ? *kept : own;
    if (!keys) {
        keys = std::make_unique<KeyCache>();
    }
    return Decoder(bytes, classes, *keys).root();
}

bool KeyedUnarchiver::decodeBool(std::string_view key) {
    const Node node = decoder_.field(key);
    if (Decoder::isNull(node)) {
        return false;
    }
    if (node.type != Type::Boolean && (node.type != Type::Integer || node.bits > 1)) {
        refuse("expected a boolean");
    }
    return node.bits != 0;
}

std::int32_t KeyedUnarchiver::decodeInt32(std::string_view key) {
    const Node node = decoder_.field(key);
    if (Decoder::isNull(node)) {
        return 0;
    }
    if (node.type != Type::Integer || node.integer() < std::numeric_limits<std::int32_t>::min() ||
        node.integer() > std::numeric_limits<std::uint32_t>::max()) {
        refuse("integer does not fit in 32 bits");
    }
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(node.bits));
}

float KeyedUnarchiver::decodeFloat(std::string_view key) {
    const Node node = decoder_.field(key);
    if (Decoder::isNull(node)) {
        return 0.0F;
    }
    switch (node.type) {
    case Type::Real32:
    case Type::Real64:
        return node.real32();
    case Type::Integer:
        return static_cast<float>(node.integer());
    default:
        refuse("expected a number");
    }
}

Value KeyedUnarchiver::decodeObject(std::string_view key) {
    return decoder_.reference(decoder_.field(key));
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
