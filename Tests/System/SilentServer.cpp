// Stands in the place of the media server and does nothing: it neither listens nor publishes.
#include <unistd.h>

int main() {
    ::alarm(600);  // it has nobody who would end it
    ::pause();
    return 0;
}
