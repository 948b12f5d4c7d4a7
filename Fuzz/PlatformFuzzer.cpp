// Attacks the platform's parsers of foreign text. The first byte chooses one:
//
//   's'  the kernel's socket diagnostics: four bytes of sequence number, then the reply
//   'p'  a bundle's Info.plist: the key on a line of its own, then the XML
//   'r'  a service record
//   'a'  user defaults among a program's arguments: one argument a line
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <linux/inet_diag.h>
#include <linux/netlink.h>

#include <glib.h>

#include <KRVQTProcessClient/Platform/DefaultsText.h>
#include <KRVQTProcessClient/Platform/Linux/InfoPropertyList.h>
#include <KRVQTProcessClient/Platform/Linux/SocketDiagnostics.h>
#include <KRVQTProcessClient/Platform/ServiceRecord.h>

namespace {

void require(bool promise) {
    if (!promise) {
        std::abort();
    }
}

/// Only the complete reply to this query may contain an owner.
void attackSocketDiagnostics(std::span<const std::byte> bytes) {
    std::uint32_t sequence = 0;
    if (bytes.size() < sizeof sequence) {
        return;
    }
    std::memcpy(&sequence, bytes.data(), sizeof sequence);
    const auto reply = bytes.subspan(sizeof sequence);
    // The ends are those of the reply in the seeds.
    const auto local = *krv::SocketEnd::from("127.0.0.1", 8000);
    const auto remote = krv::SocketEnd::from("127.0.0.1", 40000);
    const auto owner = krv::ownerFromReply(reply, local, remote, sequence);
    if (!owner) {
        (void)krv::ownerFromReply(reply, local, std::nullopt, sequence);
        return;
    }
    constexpr std::size_t kLeast = sizeof(nlmsghdr) + sizeof(inet_diag_msg);
    require(reply.size() >= kLeast);
    require(!krv::ownerFromReply(reply.first(kLeast - 1), local, remote, sequence));
    require(!krv::ownerFromReply(reply, local, remote, sequence + 1));
    require(!krv::ownerFromReply(reply, local, std::nullopt, sequence));
}

/// The result must be text, and the same if white space follows the list.
void attackPropertyList(std::string_view text) {
    const std::size_t lineEnd = std::min(text.find('\n'), text.size());
    const std::string_view key = text.substr(0, lineEnd);
    const std::string_view xml = text.substr(std::min(lineEnd + 1, text.size()));
    const auto found = krv::stringInPropertyList(xml, key);
    if (found) {
        require(g_utf8_validate_len(found->data(), found->size(), nullptr) != 0);
        require(krv::stringInPropertyList(std::string(xml) + "\n", key) == found);
    }
}

/// Each setting must be among the arguments as a key and its value, and a number must be read back unchanged.
void attackArguments(std::string_view text) {
    std::vector<std::string> arguments(1);
    for (const char c : text) {
        if (c == '\n') {
            arguments.emplace_back();
        } else {
            arguments.back() += c;
        }
    }
    for (const auto& [key, value] : krv::settingsFromArguments(arguments)) {
        const std::vector<std::string> pair{'-' + key, value};
        require(std::search(arguments.begin(), arguments.end(), pair.begin(), pair.end()) != arguments.end());
        require(!key.empty() && key.front() != '-' && (key.front() < '0' || key.front() > '9'));
        const std::int64_t number = krv::integerFromSetting(value);
        require(krv::integerFromSetting(std::to_string(number)) == number);
    }
}

/// What is read must be written to a text that reads the same.
void attackServiceRecord(std::string_view text) {
    if (const auto record = krv::parseServiceRecord(text)) {
        require(record->port != 0 && record->pid > 0 && !record->name.empty());
        require(krv::parseServiceRecord(krv::textOf(*record)) == record);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string_view text(reinterpret_cast<const char*>(bytes) + 1, size - 1);
    switch (*bytes) {
    case 's':
        attackSocketDiagnostics(std::as_bytes(std::span(text)));
        return 0;
    case 'p':
        attackPropertyList(text);
        return 0;
    case 'r':
        attackServiceRecord(text);
        return 0;
    case 'a':
        attackArguments(text);
        return 0;
    default:
        return -1;  // not for the corpus
    }
}
