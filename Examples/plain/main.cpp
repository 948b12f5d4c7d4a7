// Converts a movie to H.264 and prints its progress, without a toolkit. Copy it as a starting point.
//
//     PlainExample SOURCE DESTINATION
//
// Exits with 0 if the movie was converted, otherwise with 1.
#include <cstdlib>
#include <iostream>

#include <KRVQTProcessClient/Media.h>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: " << argv[0] << " SOURCE DESTINATION\n";
        return EXIT_FAILURE;
    }
    // Finds the server, launches one if none is running, and replaces it if it is lost.
    const krv::Media media;

    const auto converted = media
                               .convert({.source = argv[1],
                                         .destination = argv[2],
                                         .onProgress =
                                             [](const krv::Progress& progress) {
                                                 std::cout << static_cast<int>(progress.fraction * 100) << " %\n";
                                             }})
                               .wait();
    if (!converted) {
        const krv::Failure& failure = converted.error();
        std::cerr << failure.message() << '\n' << failure.cause() << '\n' << failure.suggestion() << '\n';
        return EXIT_FAILURE;
    }
    for (const krv::DroppedTrack& track : converted->droppedTracks) {
        std::cout << "dropped " << track.kind << ": " << track.reason << '\n';
    }
    return EXIT_SUCCESS;
}
