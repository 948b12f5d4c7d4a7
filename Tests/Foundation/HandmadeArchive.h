#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

/// Archives that tests build by hand, object by object, and that no archiver writes.
namespace krv::test {

using Bytes = std::string;

inline Bytes bigEndian(std::uint64_t v, int size) {
    Bytes out;
    for (int i = size - 1; i >= 0; --i) {
        out += static_cast<char>(v >> (8 * i));
    }
    return out;
}

/// Builds a property list from stored objects, with references of `referenceSize` bytes.
struct File {
    std::vector<Bytes> objects;
    int referenceSize = 2;
    int offsetSize = 4;

    std::uint64_t add(Bytes object) {
        objects.push_back(std::move(object));
        return objects.size() - 1;
    }
    static Bytes head(int kind, std::uint64_t count) {
        return count < 15 ? Bytes(1, static_cast<char>(kind | static_cast<int>(count)))
                          : Bytes(1, static_cast<char>(kind | 15)) + '\x12' + bigEndian(count, 4);
    }
    std::uint64_t text(const Bytes& s) { return add(head(0x50, s.size()) + s); }
    std::uint64_t utf16(std::vector<int> units) {
        Bytes b = head(0x60, units.size());
        for (const int u : units) {
            b += bigEndian(static_cast<std::uint64_t>(u), 2);
        }
        return add(b);
    }
    std::uint64_t integer(std::int64_t v) { return add('\x13' + bigEndian(static_cast<std::uint64_t>(v), 8)); }
    std::uint64_t boolean(bool v) { return add(v ? "\x09" : "\x08"); }
    std::uint64_t uid(std::uint64_t v) { return add('\x83' + bigEndian(v, 4)); }
    Bytes references(const std::vector<std::uint64_t>& refs) const {
        Bytes b;
        for (const auto r : refs) {
            b += bigEndian(r, referenceSize);
        }
        return b;
    }
    std::uint64_t array(const std::vector<std::uint64_t>& refs) {
        return add(head(0xA0, refs.size()) + references(refs));
    }
    Bytes dictionaryBytes(const std::vector<std::pair<std::uint64_t, std::uint64_t>>& entries) const {
        Bytes b = head(0xD0, entries.size());
        for (const auto& e : entries) {
            b += bigEndian(e.first, referenceSize);
        }
        for (const auto& e : entries) {
            b += bigEndian(e.second, referenceSize);
        }
        return b;
    }
    std::uint64_t dictionary(const std::vector<std::pair<std::uint64_t, std::uint64_t>>& entries) {
        return add(dictionaryBytes(entries));
    }
    Bytes bytes(std::uint64_t top = 0) const {
        Bytes out = "bplist00";
        Bytes table;
        for (const auto& object : objects) {
            table += bigEndian(out.size(), offsetSize);
            out += object;
        }
        const std::uint64_t tableOffset = out.size();
        out += table + Bytes(6, '\0') + static_cast<char>(offsetSize) + static_cast<char>(referenceSize);
        return out + bigEndian(objects.size(), 8) + bigEndian(top, 8) + bigEndian(tableOffset, 8);
    }
};

/// Builds an archive from a test's objects. Number 0 is "$null"; the root is number 1.
struct Archive {
    File file;
    std::vector<std::uint64_t> numbered;
    std::int64_t version = 100000;
    std::string archiver = "NSKeyedArchiver";
    std::uint64_t root = 1;

    explicit Archive(int referenceSize = 2) {
        file.referenceSize = referenceSize;
        file.add("");  // the top dictionary, filled in at the end
        number(file.text("$null"));
    }
    /// Assigns the next number to a stored object.
    std::uint64_t number(std::uint64_t place) {
        numbered.push_back(place);
        return numbered.size() - 1;
    }
    std::uint64_t classNamed(const char* name) {
        const auto names = file.array({file.text(name), file.text("NSObject")});
        return number(file.dictionary({{file.text("$classname"), file.text(name)}, {file.text("$classes"), names}}));
    }
    using Field = std::pair<const char*, std::uint64_t>;
    std::uint64_t object(std::vector<Field> fields, std::uint64_t classNumber) {
        std::vector<std::pair<std::uint64_t, std::uint64_t>> entries;
        fields.emplace_back("$class", file.uid(classNumber));
        for (const auto& [key, place] : fields) {
            entries.emplace_back(file.text(key), place);
        }
        return file.dictionary(entries);
    }
    std::uint64_t uids(const std::vector<std::uint64_t>& values) {
        std::vector<std::uint64_t> places;
        for (const auto v : values) {
            places.push_back(file.uid(v));
        }
        return file.array(places);
    }
    Bytes bytes() {
        const auto objects = file.array(numbered);
        const auto top = file.dictionary({{file.text("root"), file.uid(root)}});
        const auto versionPlace = file.integer(version);
        const auto archiverPlace = file.text(archiver);
        const std::vector<std::pair<std::uint64_t, std::uint64_t>> entries{{file.text("$top"), top},
                                                                           {file.text("$objects"), objects},
                                                                           {file.text("$version"), versionPlace},
                                                                           {file.text("$archiver"), archiverPlace}};
        file.objects[0] = file.dictionaryBytes(entries);
        return file.bytes();
    }
};

inline std::shared_ptr<const Data> dataOf(const Bytes& bytes) {
    const auto* p = reinterpret_cast<const std::byte*>(bytes.data());
    return std::make_shared<const Data>(p, p + bytes.size());
}

inline KRVOperationBase::Ref read(const Bytes& bytes) {
    return KRVOperationBase::operationFromData(dataOf(bytes));
}

/// Builds an archive of a record with the given fields. The record has number 1, the class number 2.
inline KRVOperationBase::Ref readRecord(const std::function<std::vector<Archive::Field>(Archive&)>& fields) {
    Archive archive;
    const auto root = archive.number(archive.file.add(""));
    const auto recordClass = archive.classNamed("KRVOperationBase");
    const auto made = fields(archive);
    archive.numbered[root] = archive.object(made, recordClass);
    return read(archive.bytes());
}

/// Builds an archive of a record whose argument "value" is the object with the number that make returns.
inline KRVOperationBase::Ref readArgument(const std::function<std::uint64_t(Archive&)>& make) {
    return readRecord([&](Archive& a) -> std::vector<Archive::Field> {
        const auto value = make(a);
        const auto key = a.number(a.file.text("value"));
        const auto dictionaryClass = a.classNamed("NSDictionary");
        const auto d =
            a.number(a.object({{"NS.keys", a.uids({key})}, {"NS.objects", a.uids({value})}}, dictionaryClass));
        return {{"arguments", a.file.uid(d)}};
    });
}

inline Value argument(const KRVOperationBase::Ref& record) {
    return record ? (*record->arguments())["value"] : Value("refused");
}

}  // namespace krv::test
