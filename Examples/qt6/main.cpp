// Converts movies behind a Qt 6 window. Qt's event dispatcher on Linux runs GLib's main loop, which is also the library's,
// so the jobs call back on the main thread, where widgets may be used. Copy this folder as a starting point.
//
//     Qt6Example                      opens the window, for movies to be dropped or opened
//     Qt6Example SOURCE DESTINATION   converts one movie and exits: with 0 if it was converted, otherwise with 1
//     Qt6Example --report MOVIE...    converts these as if they had been dropped, and prints what each row shows in the
//                                     end
//
// ConverterWindow is the window, MovieRow a movie in it.
#include <QAbstractEventDispatcher>
#include <QApplication>
#include <QDir>
#include <QTimer>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>

#include <KRVQTProcessClient/Platform/Bundle.h>
#include <KRVQTProcessClient/Platform/RunLoop.h>

#include "ConverterWindow.h"

namespace {

/// Runs the library's main loop from a timer if Qt does not run it: with QT_NO_GLIB=1, or if Qt was built without GLib.
/// Without it, no job would call back.
void runLibrarysLoop(QTimer& timer) {
    if (!QAbstractEventDispatcher::instance()->inherits("QEventDispatcherGlib")) {
        timer.callOnTimeout([] { krv::RunLoop::main().runUntil(krv::Clock::TimePoint()); });
        timer.start(std::chrono::milliseconds(50));
    }
}

/// Opens the window for movies that are dropped, opened or given. report: prints what the row of each shows in the end.
int convertMovies(const QStringList& movies, bool report) {
    ConverterWindow window([report](const MovieRow& row) {
        if (report) {
            std::cout << row.text().toStdString() << std::endl;
        }
    });
    window.show();
    QList<QUrl> files;
    for (const QString& movie : movies) {
        files += QUrl::fromLocalFile(QDir::current().absoluteFilePath(movie));
    }
    window.add(files);
    return QApplication::exec();
}

/// Opens the window for one movie, and closes it when that has ended.
int convertOneMovie(const std::filesystem::path& source, const std::filesystem::path& destination) {
    int status = EXIT_FAILURE;
    ConverterWindow* shown = nullptr;
    ConverterWindow window([&](const MovieRow& row) {
        if (row.failure()) {
            std::cerr << row.text().toStdString() << '\n';
        } else {
            status = EXIT_SUCCESS;
        }
        shown->close();
    });
    shown = &window;
    window.show();
    window.add(source, destination);
    QApplication::exec();
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    krv::Bundle::setApplicationIdentifier("org.example.Qt6Example");
    const QStringList arguments = QApplication::arguments().mid(1);
    QTimer timer;
    runLibrarysLoop(timer);

    if (arguments.isEmpty() || arguments[0] == "--report") {
        return convertMovies(arguments.mid(1), !arguments.isEmpty());
    }
    if (arguments.size() == 2) {
        return convertOneMovie(argv[1], argv[2]);
    }
    std::cerr << "usage: " << argv[0] << " [SOURCE DESTINATION | --report MOVIE...]\n";
    return EXIT_FAILURE;
}
