// The archiver writes an archive in two walks, without a tree.
//
// The first walk follows the object graph and gives each object its number in "$objects". An object needs its number
// before its contents are known, because the contents refer to later numbers. So the contents are recorded in flat
// arrays: an Entry per number, Items (key and value) per keyed object, and the UID lists of containers. Texts become
// Atoms, and so do scalars unless their Entry holds them. Equal texts are one atom and stored once, as are the two
// booleans. Numbers are not compared with each other, because that would cost more than the bytes it saves
// (AtomTable.h).
//
// After the first walk the number of stored objects is known exactly, and so is the width of a reference. An upper
// bound of the size is known too. The second walk (PropertyListWriter.cpp) visits the entries in order and writes them
// into one buffer of that size. It reserves the space of a container's references, writes the contents behind it, and
// then fills in their indexes. Storage is depth first, keys before values. Long texts and data are left out, so that
// they are copied only once: into the archive, which is put together in an array of the exact size. Only an archive
// that is long without them is written in place.
#include <algorithm>
#include <bit>
#include <cmath>
#include <memory>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

#include <fmt/compile.h>
#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/ArchiveCost.h>
#include <KRVQTProcessClient/Foundation/AtomTable.h>
#include <KRVQTProcessClient/Foundation/Dictionary.h>
#include <KRVQTProcessClient/Foundation/Error.h>
#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/KeyedArchiver.h>
#include <KRVQTProcessClient/Foundation/KeyedUnarchiver.h>
#include <KRVQTProcessClient/Foundation/PropertyListWriter.h>
#include <KRVQTProcessClient/Foundation/ThreadOwned.h>

namespace krv {
namespace {

using plist::Atom;
using plist::AtomTable;
using plist::cannotArchive;
using plist::Entry;
using plist::IdTable;
using plist::Item;
using plist::kNone;
using enum plist::KnownAtom;

std::string sizeText(Size size) {
    // Most sizes are whole numbers, which take less time to print as such.
    const auto isWhole = [](double v) { return v >= 1 && v < 1e9 && v == std::trunc(v); };
    if (isWhole(size.width) && isWhole(size.height)) {
        return fmt::format(FMT_COMPILE("{{{}, {}}}"), static_cast<std::uint32_t>(size.width),
                           static_cast<std::uint32_t>(size.height));
    }
    return fmt::format("{{{:.17g}, {:.17g}}}", size.width, size.height);
}

}  // namespace

class KeyedArchiver::Encoder {
public:
    Data archive(const Value& root) {
        clear();
        atomEntry(atoms_.use(kAtomNull));
        const std::uint32_t rootUid = number(root);
        Data data = write(rootUid);
        kept_.clear();
        return data;
    }

    [[nodiscard]] bool worthKeeping() const {
        return atoms_.capacity() < kKept && items_.capacity() < kKept && uids_.capacity() < kKept &&
               sharedTable_.capacity() < kKept;
    }

    void item(std::string_view key, Item::Kind kind, std::uint32_t first) { item(atoms_.text(key), kind, first); }
    /// Adds what an object's value costs the reader besides its contents. A record copies its dictionaries.
    void chargeField(const Value& value) {
        memory_ += cost::kSlotMemory;
        if (const auto* const dictionary = std::get_if<Value::DictionaryRef>(&value.storage())) {
            memory_ += cost::copyMemory((*dictionary)->size());
            steps_ += (*dictionary)->size();
        }
    }

    /// Keeps a value until the archive is written, because atoms borrow its text.
    const Value& keep(Value value) {
        kept_.push_back(std::move(value));
        return kept_.back();
    }

    /// Returns the number of a value's entry, and adds the entry if the value is new; 0 for null.
    std::uint32_t reference(const Value& value) { return value.isNull() ? 0 : number(value); }

private:
    void clear() {
        atoms_.clear();
        items_.clear();
        pending_.clear();
        uids_.clear();
        pendingUids_.clear();
        kept_.clear();
        entries_.clear();
        classes_.clear();
        shared_.clear();
        sharedTable_.clear();
        lists_ = 0;
        objects_ = 0;
        scalars_ = 0;
        memory_ = 0;
        steps_ = cost::kTopSteps;
        depth_ = 0;
        height_ = 0;
        nullUsed_ = false;
        splices_.clear();
    }

    std::uint32_t newEntry(Entry entry) {
        if (entries_.size() >= kNone) {
            cannotArchive("too many objects for one archive");
        }
        entries_.push_back(entry);
        return static_cast<std::uint32_t>(entries_.size() - 1);
    }

    std::uint32_t atomEntry(std::uint32_t atom) { return newEntry({Entry::Kind::Atom, {}, 1, atom}); }

    std::uint32_t scalarEntry(Atom::Kind kind, std::uint64_t bits) {
        ++scalars_;
        return newEntry({Entry::Kind::Scalar, kind, 1, bits});
    }

    void item(std::uint32_t key, Item::Kind kind, std::uint32_t first, std::uint32_t count = 1) {
        pending_.push_back({key, kind, first, count});
    }

    std::uint32_t textEntry(std::string_view text) {
        const std::uint32_t atom = atoms_.text(text);
        if (atoms_[atom].uid == 0) {
            const std::uint32_t uid = atomEntry(atom);
            atoms_[atom].uid = uid;
            memory_ += cost::kSlotMemory + cost::kObjectMemory + text.size();
            steps_ += atoms_[atom].kind == Atom::Kind::Utf16 ? atoms_[atom].bits / cost::kTextPerStep : 0;
        }
        return atoms_[atom].uid;
    }

    /// The same for a text that other values may share. Hashing a long one for each reference would take long.
    std::uint32_t sharedTextEntry(const Value::StringRef& text) {
        if (text->size() < kLongText) {
            return textEntry(*text);
        }
        if (const std::uint32_t known = numberOfShared(text.get()); known != 0) {
            return known;
        }
        const std::uint32_t uid = textEntry(*text);
        shared_.back().uid = uid;
        return uid;
    }

    /// Adds a keyed object: its number, then the items that body() records, then its class.
    /// The graph's height counts, not the path on which an object is first met: a shared object may be met again at a
    /// greater depth.
    template <typename Body>
    std::uint32_t keyedObject(const void* identity, std::uint32_t className, std::uint32_t superclassName,
                              const Body& body) {
        if (identity) {
            if (const std::uint32_t known = numberOfShared(identity); known != 0) {
                return known;
            }
        }
        nest(1);
        ++depth_;
        const int outerHeight = std::exchange(height_, 0);
        memory_ += cost::kSlotMemory;
        steps_ += cost::kClassSteps;
        const std::uint32_t uid = newEntry({Entry::Kind::Items, {}, 0, 0});
        const std::size_t place = shared_.size() - 1;
        if (identity) {
            shared_[place].uid = uid;
        }
        const std::size_t begin = pending_.size();
        body();
        item(atoms_.use(kAtomClass), Item::Kind::Uid, classReference(className, superclassName));
        close(uid, begin);
        --depth_;
        ++height_;
        if (identity) {
            shared_[place].height = height_;
        }
        height_ = std::max(outerHeight, height_);
        return uid;
    }

    /// Notes that the object that is being recorded contains one of this height.
    void nest(int height) {
        if (depth_ + height > kMaximumArchiveDepth) {
            cannotArchive("objects nested too deeply to be archived");
        }
        height_ = std::max(height_, height);
    }

    /// Moves the items recorded since begin to their final place.
    void close(std::uint32_t uid, std::size_t begin) {
        entries_[uid].value = items_.size();
        entries_[uid].count = static_cast<std::uint32_t>(pending_.size() - begin);
        items_.insert(items_.end(), pending_.begin() + static_cast<std::ptrdiff_t>(begin), pending_.end());
        pending_.resize(begin);
        ++objects_;
    }

    /// Returns the number of an object that is already known. Otherwise adds it to shared_ and returns 0; the caller
    /// stores its number in the last element of shared_ before it adds any other object.
    std::uint32_t numberOfShared(const void* identity) {
        const auto hashOf = [](const void* p) {
            return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(p) * 0x9E3779B97F4A7C15U >> 32);
        };
        const auto next = static_cast<std::uint32_t>(shared_.size());
        const std::uint32_t id = sharedTable_.findOrInsert(
            hashOf(identity), next, [&](std::uint32_t i) { return shared_[i].identity == identity; },
            [&](std::uint32_t i) { return hashOf(shared_[i].identity); });
        if (id == next) {
            shared_.push_back({identity, 0, 0});
        }
        nest(shared_[id].height);
        return shared_[id].uid;
    }

    /// Returns the number of a class description, and adds it if the class is new. superclassName is the class between
    /// the class and "NSObject", kNone if there is none.
    std::uint32_t classReference(std::uint32_t name, std::uint32_t superclassName) {
        for (const auto& [known, uid] : classes_) {
            if (known == name) {
                return uid;
            }
        }
        memory_ += cost::kSlotMemory;
        steps_ += cost::kClassSteps;
        const std::uint32_t uid = newEntry({Entry::Kind::Items, {}, 0, 0});
        classes_.emplace_back(atoms_.use(name), uid);
        const std::size_t begin = pending_.size();
        item(atoms_.use(kAtomClassName), Item::Kind::Atom, name);
        const auto first = static_cast<std::uint32_t>(uids_.size());
        uids_.push_back(name);
        if (superclassName != kNone) {
            uids_.push_back(atoms_.use(superclassName));
        }
        uids_.push_back(atoms_.use(kAtomNSObject));
        list(atoms_.use(kAtomClasses), Item::Kind::AtomList, first);
        close(uid, begin);
        return uid;
    }

    void list(std::uint32_t key, Item::Kind kind, std::uint32_t first) {
        item(key, kind, first, static_cast<std::uint32_t>(uids_.size()) - first);
        ++lists_;
    }

    /// Numbers each element and records the list. Nested lists use pendingUids_ as a stack.
    template <typename Range, typename NumberOf>
    void uidList(std::uint32_t key, const Range& range, const NumberOf& numberOf) {
        const std::size_t begin = pendingUids_.size();
        for (const auto& element : range) {
            const std::uint32_t uid = numberOf(element);
            pendingUids_.push_back(uid);
        }
        const auto first = static_cast<std::uint32_t>(uids_.size());
        uids_.insert(uids_.end(), pendingUids_.begin() + static_cast<std::ptrdiff_t>(begin), pendingUids_.end());
        steps_ += pendingUids_.size() - begin;
        pendingUids_.resize(begin);
        list(key, Item::Kind::UidList, first);
    }

    void charge(const cost::Cost& cost) {
        memory_ += cost.memory;
        steps_ += cost.steps;
    }

    std::uint32_t dictionary(const Dictionary& dictionary) {
        const bool isMutable = dictionary.mutability() == Dictionary::Mutability::Mutable;
        return keyedObject(&dictionary, isMutable ? kAtomNSMutableDictionary : kAtomNSDictionary,
                           isMutable ? std::uint32_t{kAtomNSDictionary} : kNone, [&] {
                               charge(cost::dictionaryCost(dictionary));
                               uidList(atoms_.use(kAtomKeys), dictionary,
                                       [&](const auto& entry) { return sharedTextEntry(entry.first); });
                               uidList(atoms_.use(kAtomElements), dictionary,
                                       [&](const auto& entry) { return number(entry.second); });
                           });
    }

    std::uint32_t error(const Error& error) {
        return keyedObject(&error, atoms_.text("NSError"), kNone, [&] {
            memory_ += cost::kErrorMemory;
            steps_ += cost::kErrorSteps;
            item("NSDomain", Item::Kind::Uid, sharedTextEntry(error.sharedDomain()));
            item("NSCode", Item::Kind::Atom,
                 atoms_.scalar(Atom::Kind::Integer, static_cast<std::uint64_t>(error.code())));
            noteReference("NSUserInfo", error.userInfo() ? dictionary(*error.userInfo()) : 0);
        });
    }

    std::uint32_t dataEntry(const Data& data) {
        if (const std::uint32_t known = numberOfShared(&data); known != 0) {
            return known;
        }
        const std::string_view bytes(reinterpret_cast<const char*>(data.data()), data.size());
        memory_ += cost::kSlotMemory + cost::kObjectMemory + data.size();
        const std::uint32_t uid = atomEntry(atoms_.data(bytes));
        shared_.back().uid = uid;
        return uid;
    }

    std::uint32_t date(Date date) {
        return keyedObject(nullptr, atoms_.text("NSDate"), kNone, [&] {
            steps_ += cost::kDateSteps;
            item("NS.time", Item::Kind::Atom,
                 atoms_.scalar(Atom::Kind::Real64, std::bit_cast<std::uint64_t>(date.secondsSinceReference)));
        });
    }

    std::uint32_t size(Size size) {
        return keyedObject(nullptr, atoms_.text("NSValue"), kNone, [&] {
            steps_ += cost::kSizeSteps;
            constexpr std::uint64_t kSizeKind = 2;
            item("NS.special", Item::Kind::Atom, atoms_.scalar(Atom::Kind::Integer, kSizeKind));
            item("NS.sizeval", Item::Kind::Uid, textEntry(keep(Value(sizeText(size))).stringValue()));
        });
    }

    std::uint32_t array(const Array& array) {
        return keyedObject(&array, atoms_.text("NSArray"), kNone, [&] {
            memory_ += cost::arrayMemory(array.size());
            steps_ += cost::kArraySteps;
            uidList(atoms_.use(kAtomElements), array, [&](const Value& element) { return number(element); });
        });
    }

    std::uint32_t object(const Archivable& object) {
        const std::string_view superclassName = object.superclassName();
        const std::uint32_t className = atoms_.text(object.className());
        return keyedObject(&object, className, superclassName.empty() ? kNone : atoms_.text(superclassName), [&] {
            memory_ += cost::kArchivableMemory;
            const std::size_t begin = pending_.size();
            KeyedArchiver coder(*this);
            object.encodeWithCoder(coder);
            steps_ += pending_.size() + 1 - begin;
        });
    }

    /// Returns the number of a value's entry, and adds the entry if the value is new. The path of an integer is short for
    /// speed: there may be thousands in a list.
    std::uint32_t number(const Value& value) {
        const auto* const integer = std::get_if<std::int64_t>(&value.storage());
        return integer ? scalarEntry(Atom::Kind::Integer, static_cast<std::uint64_t>(*integer)) : numberOfAny(value);
    }

    std::uint32_t numberOfAny(const Value& value) {
        const Value::Storage& storage = value.storage();
        switch (value.kind()) {
        case Value::Kind::Null:
            break;
        case Value::Kind::Boolean:
            return atomEntry(atoms_.boolean(std::get<bool>(storage)));
        case Value::Kind::Integer:
            return scalarEntry(Atom::Kind::Integer, static_cast<std::uint64_t>(std::get<std::int64_t>(storage)));
        case Value::Kind::Float32:
            return scalarEntry(Atom::Kind::Real32, std::bit_cast<std::uint32_t>(std::get<float>(storage)));
        case Value::Kind::Float64:
            return scalarEntry(Atom::Kind::Real64, std::bit_cast<std::uint64_t>(std::get<double>(storage)));
        case Value::Kind::String:
            return sharedTextEntry(std::get<Value::StringRef>(storage));
        case Value::Kind::Data:
            return dataEntry(*std::get<Value::DataRef>(storage));
        case Value::Kind::Date:
            return date(std::get<Date>(storage));
        case Value::Kind::Size:
            return size(std::get<Size>(storage));
        case Value::Kind::Array:
            return array(*std::get<Value::ArrayRef>(storage));
        case Value::Kind::Dictionary:
            return dictionary(*std::get<Value::DictionaryRef>(storage));
        case Value::Kind::Error:
            return error(*std::get<Value::ErrorRef>(storage));
        case Value::Kind::Object:
            return object(*std::get<Value::ObjectRef>(storage));
        }
        return keyedObject(nullptr, atoms_.text("NSNull"), kNone, [] {});
    }

public:
    void noteReference(std::string_view key, std::uint32_t uid) {
        nullUsed_ |= uid == 0;
        item(key, Item::Kind::Uid, uid);
    }

private:
    Data write(std::uint32_t rootUid) {
        for (const std::uint32_t atom :
             {kAtomVersion, kAtomObjects, kAtomArchiver, kAtomTop, kAtomVersionNumber, kAtomArchiverName, kAtomRoot}) {
            atoms_.use(atom);
        }
        // Every entry except "$null" has one UID. The other three are the top dictionary, "$objects" and "$top".
        const std::uint64_t count =
            atoms_.used() + scalars_ + (entries_.size() - 1) + (nullUsed_ ? 1 : 0) + objects_ + lists_ + 3;
        if (count >= kNone) {
            cannotArchive("too many objects for one archive");
        }
        const std::size_t referenceCount =
            std::size_t{2} * (4 + 1) + entries_.size() + 2 * items_.size() + uids_.size();
        const std::size_t bound = plist::archiveSizeBound(count, referenceCount, atoms_.byteBound());
        offsets_.resize(static_cast<std::size_t>(count));
        uidIndexes_.assign(entries_.size(), kNone);

        plist::Graph graph{&atoms_[0],      items_.data(),      uids_.data(), entries_,
                           offsets_.data(), uidIndexes_.data(), nullptr};
        memory_ += count * cost::kNumberMemory;
        if (bound > kKept) {
            Data data(bound + atoms_.longBytes());
            data.resize(writeTo(reinterpret_cast<std::uint8_t*>(data.data()), graph, rootUid, count));
            return data;
        }
        if (bufferSize_ < bound) {
            buffer_ = std::make_unique_for_overwrite<std::uint8_t[]>(bound);
            bufferSize_ = bound;
        }
        graph.splices = &splices_;
        return assembled(writeTo(buffer_.get(), graph, rootUid, count));
    }

    /// Returns the size of the archive.
    std::size_t writeTo(std::uint8_t* out, const plist::Graph& graph, std::uint32_t rootUid,
                        std::uint64_t count) const {
        const std::size_t size = plist::writeArchive(graph, rootUid, count, out);
        if (memory_ > cost::memoryBudget(size) || steps_ > cost::stepsBudget(size)) {
            cannotArchive("objects share so much that no reader would accept the archive");
        }
        return size;
    }

    /// Copies what was written and what is spliced into it to an array of their own. Nothing of that length is cleared
    /// first, which would take as long as the copy.
    Data assembled(std::size_t size) const {
        Data data;
        data.reserve(size);
        const auto append = [&data](const void* bytes, std::size_t length) {
            const auto* const p = static_cast<const std::byte*>(bytes);
            data.insert(data.end(), p, p + length);
        };
        std::size_t place = 0;
        for (const plist::Splice& splice : splices_) {
            append(buffer_.get() + place, splice.place - place);
            append(splice.bytes.data(), splice.bytes.size());
            place = splice.place;
        }
        append(buffer_.get() + place, size - data.size());
        return data;
    }

    static constexpr std::size_t kLongText = 256;
    /// The greatest length of an array that is kept for the thread's next archive.
    static constexpr std::size_t kKept = 1 << 16;

    AtomTable atoms_;
    std::vector<Item> items_;
    std::vector<Item> pending_;
    std::vector<std::uint32_t> uids_;
    std::vector<std::uint32_t> pendingUids_;
    std::vector<Entry> entries_;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> classes_;
    /// An object to which several references may lead.
    struct Shared {
        const void* identity;
        /// 0 until it has a number.
        std::uint32_t uid;
        /// How many objects are nested in it, along the longest path. 0 while it is being recorded.
        int height;
    };
    std::vector<Shared> shared_;
    IdTable sharedTable_;
    std::vector<Value> kept_;
    std::size_t lists_ = 0;
    std::size_t objects_ = 0;
    std::size_t scalars_ = 0;
    /// What the reader will need. Never less than it charges.
    std::uint64_t memory_ = 0;
    std::uint64_t steps_ = 0;
    int depth_ = 0;
    int height_ = 0;
    bool nullUsed_ = false;

    std::unique_ptr<std::uint8_t[]> buffer_;
    std::size_t bufferSize_ = 0;
    std::vector<plist::Splice> splices_;
    std::vector<std::uint64_t> offsets_;
    std::vector<std::uint32_t> uidIndexes_;

    friend class KeyedArchiver;
};

Data KeyedArchiver::archivedData(const Value& root) {
    // A thread reuses the arrays of its last archive, which have the right size. They are moved out while in use,
    // because an object's encodeWithCoder may create an archive itself.
    auto* const spare = threadOwned<std::unique_ptr<Encoder>>();
    std::unique_ptr<Encoder> encoder = spare ? std::move(*spare) : nullptr;
    if (!encoder) {
        encoder = std::make_unique<Encoder>();
    }
    Data data = encoder->archive(root);
    if (spare && encoder->worthKeeping()) {
        *spare = std::move(encoder);
    }
    return data;
}

Data KeyedArchiver::archivedData(const Archivable& root) {
    return archivedData(Value(Value::ObjectRef(Value::ObjectRef(), &root)));
}

void KeyedArchiver::encodeBool(std::string_view key, bool value) {
    encoder_.item(key, Item::Kind::Atom, encoder_.atoms_.boolean(value));
}

void KeyedArchiver::encodeInt(std::string_view key, std::int64_t value) {
    encoder_.item(key, Item::Kind::Atom,
                  encoder_.atoms_.scalar(Atom::Kind::Integer, static_cast<std::uint64_t>(value)));
}

void KeyedArchiver::encodeFloat(std::string_view key, float value) {
    encoder_.item(key, Item::Kind::Atom,
                  encoder_.atoms_.scalar(Atom::Kind::Real32, std::bit_cast<std::uint32_t>(value)));
}

void KeyedArchiver::encodeDouble(std::string_view key, double value) {
    encoder_.item(key, Item::Kind::Atom,
                  encoder_.atoms_.scalar(Atom::Kind::Real64, std::bit_cast<std::uint64_t>(value)));
}

void KeyedArchiver::encodeObject(std::string_view key, Value value) {
    encoder_.chargeField(value);
    encoder_.noteReference(key, encoder_.reference(value));
    if (!value.isNull()) {  // moving one takes longer than looking
        (void)encoder_.keep(std::move(value));
    }
}

}  // namespace krv
