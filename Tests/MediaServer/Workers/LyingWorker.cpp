// A worker program that a hostile file has taken over. Its file name says what it sends. When the server has read that, it
// creates a file of that name with ".read" appended. It never exits by itself.
#include <string>

#include <fcntl.h>
#include <linux/sockios.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

int main(int, char** argv) {
    constexpr int kChannel = 3;
    const std::string path = argv[0];
    if (path.ends_with("/HalfLength")) {
        [[maybe_unused]] const auto sent = ::write(kChannel, "\x10\0\0", 3);
    } else if (path.ends_with("/HalfRecord")) {
        [[maybe_unused]] const auto sent = ::write(kChannel, "\x10\0\0\0bplist", 10);
    }
    for (int unread = 1; unread > 0;) {
        ::sched_yield();
        if (::ioctl(kChannel, SIOCOUTQ, &unread) != 0) {
            return 1;
        }
    }
    ::close(::open((path + ".read").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    for (;;) {
        ::pause();
    }
}
