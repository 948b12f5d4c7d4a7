#include <cstdint>
#include <sstream>

#include <KRVQTProcessClient/Platform/ProcessTable.h>
#include <KRVQTProcessClient/Platform/ServerIdentity.h>
#include <KRVQTProcessClient/Platform/ServerLock.h>

#include "SmallFile.h"

namespace krv {

bool isServerLockHeld(const std::string& folder) {
    constexpr std::size_t kLongest = 64;
    if (folder.empty()) {
        return false;
    }
    // Trying the lock instead would keep it from a server that starts at this moment.
    std::istringstream in(readSmallFile(folder + '/' + serverFileName(".lock"), kLongest).value_or(""));
    pid_t pid = 0;
    std::uint64_t startTime = 0;
    if (!(in >> pid >> startTime)) {
        return false;
    }
    const auto holder = ProcessTable::ofThisUser().process(pid);
    return holder && holder->startTime == startTime;
}

}  // namespace krv
