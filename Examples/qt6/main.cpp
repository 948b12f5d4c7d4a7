// Converts a movie to H.264 behind a Qt 6 window with a progress bar and a cancel button. Qt's event dispatcher on
// Linux runs GLib's main loop, which is also the library's. Copy it as a starting point.
//
//     Qt6Example SOURCE DESTINATION
//
// The window closes by itself. Exits with 0 if the movie was converted, otherwise with 1.
#include <QAbstractEventDispatcher>
#include <QApplication>
#include <QProgressDialog>
#include <QTimer>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace {

constexpr int kSteps = 1000;

/// Called on the thread that waits for the conversion; widgets belong to the main thread.
class DialogFiller final : public krv::OperationProgress {
public:
    DialogFiller(QProgressDialog& dialog, const std::atomic<bool>& cancelled)
        : dialog_(dialog)
        , cancelled_(cancelled) {}

    bool operation(const std::shared_ptr<krv::KRVOperationBase>&, float progress) override {
        QMetaObject::invokeMethod(
            &dialog_, [&dialog = dialog_, value = static_cast<int>(progress * kSteps)] { dialog.setValue(value); },
            Qt::QueuedConnection);
        hasCancelled_ = cancelled_;
        return !hasCancelled_;
    }
    /// Returns whether the conversion was cancelled, in which case the call returned without an error. Call on the same
    /// thread after the call.
    bool hasCancelled() const { return hasCancelled_; }

private:
    QProgressDialog& dialog_;
    const std::atomic<bool>& cancelled_;
    bool hasCancelled_ = false;
};

/// Blocks until the conversion ends. Returns why it failed, or an empty string.
std::string convert(krv::KRVQTProcessOperations& client, const std::string& source, const std::string& destination,
                    const krv::ProgressDelegate& progress) {
    std::shared_ptr<const krv::Error> error;
    try {
        client.convertMovie(source, destination, krv::VideoConversion::H264, false, progress, &error);
    } catch (const krv::Exception& exception) {
        return exception.reason();  // the server could not be reached
    }
    return error ? error->localizedDescription() : std::string();
}

/// Runs the library's main loop from a timer if Qt does not run it: with QT_NO_GLIB=1, or if Qt was built without GLib.
///
/// Without it, calls still work, but the search for the server stops after its first round. The first call then takes
/// some seconds longer, and a lost server is not found again.
void runLibrarysLoop(QTimer& timer) {
    if (!QAbstractEventDispatcher::instance()->inherits("QEventDispatcherGlib")) {
        timer.callOnTimeout([] { krv::RunLoop::main().runUntil(krv::Clock::TimePoint()); });
        timer.start(std::chrono::milliseconds(50));
    }
}

}  // namespace

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    if (argc != 3) {
        std::cerr << "usage: " << argv[0] << " SOURCE DESTINATION\n";
        return EXIT_FAILURE;
    }
    // The server does not share our working directory.
    const std::string source = std::filesystem::absolute(argv[1]);
    const std::string destination = std::filesystem::absolute(argv[2]);
    QTimer timer;
    runLibrarysLoop(timer);

    QProgressDialog dialog("Converting", "Cancel", 0, kSteps);
    std::atomic<bool> cancelled{false};
    QObject::connect(&dialog, &QProgressDialog::canceled, [&] { cancelled = true; });
    dialog.setAutoClose(false);
    dialog.setAutoReset(false);
    dialog.show();

    // Created on the main thread. Finds the server, launches one if none is running, and replaces it if it is lost.
    krv::Bundle::setApplicationIdentifier("org.example.Qt6Example");
    const auto client = krv::KRVQuicktimeProcessClient::defaultClient();

    QApplication::setQuitOnLastWindowClosed(false);  // the program waits for a cancelled conversion to end
    std::string failure;
    std::thread worker([&] {
        const auto filler = std::make_shared<DialogFiller>(dialog, cancelled);
        failure = convert(*client, source, destination, filler);
        if (failure.empty() && filler->hasCancelled()) {
            failure = "Cancelled.";
        }
        QMetaObject::invokeMethod(&application, &QApplication::quit, Qt::QueuedConnection);
    });
    QApplication::exec();
    worker.join();

    if (!failure.empty()) {
        std::cerr << failure << '\n';
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
