#include "Shell.h"

#include <cstdlib>

#include <sys/wait.h>

namespace krv::test {

int runShell(const std::string& command) {
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace krv::test
