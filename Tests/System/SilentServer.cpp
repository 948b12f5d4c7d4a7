// Takes the place of the media server and does nothing: it neither listens nor publishes.
#include <unistd.h>

int main() {
    ::alarm(600);  // nothing else ends it if the test is killed
    ::pause();
    return 0;
}
