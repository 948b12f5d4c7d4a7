#include "SocketsOfGIO.h"

#include <csignal>

#include <gio/gio.h>

namespace krv {

void initialiseSocketsOfGIO() {
    static const bool done = [] {
        struct sigaction before {};
        ::sigaction(SIGPIPE, nullptr, &before);
        g_type_class_ref(G_TYPE_SOCKET);  // and never released, or the class would be initialised again
        ::sigaction(SIGPIPE, &before, nullptr);
        return true;
    }();
    (void)done;
}

}  // namespace krv
