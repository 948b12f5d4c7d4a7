// An HTTP server that behaves as a test tells it, well or badly, and reports what it receives.
//
//   ScriptedServer [OPTION VALUE]...
//
// Prints "port N" when it listens. Options may also be written to its standard input later, one "option value" per
// line. They apply from then on, and it prints "ok" for each. Exits at the end of its standard input.
//
//   port N              port to listen on (0: any free port); at start only
//   address A           address to listen on, 127.0.0.1 by default; at start only
//   user N              user to become before listening; at start only
//   report yes          prints reports on standard output
//   log FILE            appends the same reports to a file
//   status N            status of the responses
//   body TEXT           body of the responses
//   body-size N         a body of N bytes 'x'
//   body-file PATH      a body from a file
//   server TEXT         value of the header "Server", the media server's by default; empty: none
//   header TEXT         adds a header line to the responses; empty removes all added lines
//   claim N             Content-Length to send instead of the real one; "none": none, the response ends with the
//                       connection; empty: the real one again
//   raw TEXT            sends only this text as the response (\r and \n for line ends); empty: a real response again
//   behave HOW          answer: responds and keeps the connection open
//                       close: responds and closes
//                       hang: reads requests and never responds
//                       refuse: closes each connection at once
//                       drop: closes after the request without a response
//                       drip: responds byte by byte, one per `pause`
//                       deaf: does not accept connections
//   pause MS            milliseconds between two bytes of drip
//
// The reports are "connection C", then "request C METHOD PATH", one "header NAME: VALUE" for each header and "body
// HEX", and "closed C" when the peer has closed the connection. C counts the connections from 1.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

struct Script {
    std::string address = "127.0.0.1";
    int port = 0;
    std::optional<uid_t> user;
    bool report = false;
    std::string log;
    int status = 200;
    std::string body;
    std::string server = "KRVQuicktimeProcess/" KRV_VERSION;
    std::vector<std::string> headers;
    std::optional<std::string> claim;
    std::string raw;
    std::string behave = "answer";
    int pause = 1000;
};

std::mutex mutex;
Script script;  // guarded by the mutex once threads run

Script now() {
    const std::lock_guard lock(mutex);
    return script;
}

/// Output waits here, so that a test that does not read its pipe does not block the server.
std::string output;  // guarded by the mutex
std::condition_variable outputReady;

void print(const std::string& lines) {  // with the mutex held
    output += lines;
    outputReady.notify_one();
}

[[noreturn]] void printOutput() {
    std::unique_lock lock(mutex);
    for (;;) {
        outputReady.wait(lock, [] { return !output.empty(); });
        const std::string lines = std::exchange(output, {});
        lock.unlock();
        std::fwrite(lines.data(), 1, lines.size(), stdout);
        std::fflush(stdout);
        lock.lock();
    }
}

void report(const std::string& lines) {
    const std::lock_guard lock(mutex);
    if (script.report) {
        print(lines);
    }
    if (!script.log.empty()) {
        std::ofstream(script.log, std::ios::app) << lines;
    }
}

std::string unescaped(std::string text) {
    for (const auto& [from, to] : {std::pair{"\\r", "\r"}, std::pair{"\\n", "\n"}}) {
        for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + 1)) {
            text.replace(at, 2, to);
        }
    }
    return text;
}

bool set(const std::string& option, const std::string& value) {
    const std::lock_guard lock(mutex);
    if (option == "port") {
        script.port = std::stoi(value);
    } else if (option == "address") {
        script.address = value;
    } else if (option == "user") {
        script.user = static_cast<uid_t>(std::stoul(value));
    } else if (option == "report") {
        script.report = value == "yes";
    } else if (option == "log") {
        script.log = value;
    } else if (option == "status") {
        script.status = std::stoi(value);
    } else if (option == "body") {
        script.body = value;
    } else if (option == "body-size") {
        script.body.assign(std::stoul(value), 'x');
    } else if (option == "body-file") {
        std::ifstream in(value, std::ios::binary);
        script.body.assign(std::istreambuf_iterator<char>(in), {});
    } else if (option == "server") {
        script.server = value;
    } else if (option == "header") {
        value.empty() ? script.headers.clear() : script.headers.push_back(value);
    } else if (option == "claim") {
        script.claim = value.empty() ? std::nullopt : std::optional(value);
    } else if (option == "raw") {
        script.raw = unescaped(value);
    } else if (option == "behave") {
        script.behave = value;
    } else if (option == "pause") {
        script.pause = std::stoi(value);
    } else {
        return false;
    }
    return true;
}

std::string hex(std::string_view bytes) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    for (const char c : bytes) {
        const auto value = static_cast<unsigned char>(c);
        text += digits[value >> 4U];
        text += digits[value & 15U];
    }
    return text;
}

/// One accepted connection.
class Connection {
public:
    Connection(int socket, int number)
        : socket_(socket)
        , number_(number) {}
    ~Connection() { ::close(socket_); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void serve() {
        report("connection " + std::to_string(number_) + '\n');
        if (now().behave == "refuse") {
            return;
        }
        while (readRequest()) {
            const Script current = now();
            if (current.behave == "drop") {
                return;
            }
            if (current.behave == "hang") {
                continue;
            }
            if (!write(answer(current), current) || current.behave == "close" || current.claim ||
                !current.raw.empty()) {
                return;
            }
        }
        report("closed " + std::to_string(number_) + '\n');
    }

private:
    bool more() {
        char buffer[16384];
        const ssize_t count = ::recv(socket_, buffer, sizeof buffer, 0);
        if (count > 0) {
            pending_.append(buffer, static_cast<std::size_t>(count));
        }
        return count > 0;
    }

    bool readRequest() {
        std::size_t end = 0;
        while ((end = pending_.find("\r\n\r\n")) == std::string::npos) {
            if (!more()) {
                return false;
            }
        }
        const std::string head = pending_.substr(0, end + 2);
        pending_.erase(0, end + 4);
        std::size_t length = 0;
        std::string lines;
        for (std::size_t begin = 0; begin < head.size();) {
            const std::size_t lineEnd = head.find("\r\n", begin);
            const std::string line = head.substr(begin, lineEnd - begin);
            if (begin == 0) {
                lines += "request " + std::to_string(number_) + ' ' + line.substr(0, line.rfind(' ')) + '\n';
            } else {
                lines += "header " + line + '\n';
            }
            constexpr std::string_view lengthName = "Content-Length: ";
            if (line.starts_with(lengthName)) {
                length = std::stoul(line.substr(lengthName.size()));
            }
            begin = lineEnd + 2;
        }
        while (pending_.size() < length) {
            if (!more()) {
                return false;
            }
        }
        report(lines + "body " + hex(pending_.substr(0, length)) + '\n');
        pending_.erase(0, length);
        return true;
    }

    static std::string answer(const Script& current) {
        if (!current.raw.empty()) {
            return current.raw;
        }
        std::string text = "HTTP/1.1 " + std::to_string(current.status) + " Scripted\r\n";
        if (current.claim != "none") {
            text += "Content-Length: " + current.claim.value_or(std::to_string(current.body.size())) + "\r\n";
        }
        if (!current.server.empty()) {
            text += "Server: " + current.server + "\r\n";
        }
        for (const std::string& header : current.headers) {
            text += header + "\r\n";
        }
        return text + "\r\n" + current.body;
    }

    bool write(const std::string& text, const Script& current) const {
        const std::size_t step = current.behave == "drip" ? 1 : text.size();
        for (std::size_t sent = 0; sent < text.size();) {
            const ssize_t count = ::send(socket_, text.data() + sent, std::min(step, text.size() - sent), MSG_NOSIGNAL);
            if (count <= 0) {
                return false;
            }
            sent += static_cast<std::size_t>(count);
            if (step == 1) {
                std::this_thread::sleep_for(std::chrono::milliseconds(current.pause));
            }
        }
        return true;
    }

    const int socket_;
    const int number_;
    std::string pending_;
};

int listenOn(const Script& s) {
    sockaddr_in v4{};
    sockaddr_in6 v6{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(static_cast<std::uint16_t>(s.port));
    v6.sin6_family = AF_INET6;
    v6.sin6_port = v4.sin_port;
    const bool isV4 = ::inet_pton(AF_INET, s.address.c_str(), &v4.sin_addr) == 1;
    if (!isV4 && ::inet_pton(AF_INET6, s.address.c_str(), &v6.sin6_addr) != 1) {
        return -1;
    }
    auto* address = isV4 ? reinterpret_cast<sockaddr*>(&v4) : reinterpret_cast<sockaddr*>(&v6);
    socklen_t size = isV4 ? sizeof v4 : sizeof v6;
    const int listener = ::socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (listener < 0 || ::bind(listener, address, size) != 0 || ::listen(listener, 64) != 0 ||
        ::getsockname(listener, address, &size) != 0) {
        return -1;
    }
    std::printf("port %d\n", ntohs(isV4 ? v4.sin_port : v6.sin6_port));
    std::fflush(stdout);
    return listener;
}

void acceptOn(int listener) {
    for (int number = 1;; ++number) {
        pollfd waiting{listener, POLLIN, 0};
        ::poll(&waiting, 1, -1);
        while (now().behave == "deaf") {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        const int socket = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket < 0) {
            return;
        }
        const int on = 1;
        ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        std::thread([socket, number] { Connection(socket, number).serve(); }).detach();
    }
}

}  // namespace

int main(int count, char** arguments) {
    for (int i = 1; i + 1 < count; i += 2) {
        if (!set(arguments[i], arguments[i + 1])) {
            std::fprintf(stderr, "ScriptedServer: no option \"%s\"\n", arguments[i]);
            return 2;
        }
    }
    if (script.user && ::setuid(*script.user) != 0) {
        std::perror("ScriptedServer: setuid");
        return 1;
    }
    const int listener = listenOn(script);
    if (listener < 0) {
        std::perror("ScriptedServer: listen");
        return 1;
    }
    std::thread(printOutput).detach();
    std::thread(acceptOn, listener).detach();
    for (std::string line; std::getline(std::cin, line);) {
        const std::size_t space = std::min(line.find(' '), line.size());
        const bool known = set(line.substr(0, space), line.substr(std::min(space + 1, line.size())));
        const std::lock_guard lock(mutex);
        print(known ? "ok\n" : "unknown\n");
    }
    // Detached threads still run: leave without destroying what they use.
    ::_exit(0);
}
