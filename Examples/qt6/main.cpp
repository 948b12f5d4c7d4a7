// Converts a movie to H.264 behind a Qt 6 window with a progress bar and a cancel button. Qt's event dispatcher on
// Linux turns GLib's main loop, and with it the library's. To be copied.
//
//     Qt6Example SOURCE DESTINATION
//
// The window closes by itself. Ends with 0 when the movie has been converted, else with 1.
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
    /// On the same thread, when the call has ended: it does so without an error when it was cancelled.
    bool hasCancelled() const { return hasCancelled_; }

private:
    QProgressDialog& dialog_;
    const std::atomic<bool>& cancelled_;
    bool hasCancelled_ = false;
};

/// Blocks until the movie has been converted. What went wrong otherwise; empty when nothing did.
std::string convert(krv::KRVQTProcessOperations& client, const std::string& source, const std::string& destination,
                    const krv::ProgressDelegate& progress) {
    std::shared_ptr<const krv::Error> error;
    try {
        client.convertMovie(source, destination, krv::VideoConversion::H264, false, progress, &error);
    } catch (const krv::Exception& exception) {
        return exception.reason();  // the server cannot be reached
    }
    return error ? error->localizedDescription() + ' ' + error->localizedFailureReason() : std::string();
}

/// With QT_NO_GLIB=1, or a Qt that was built without GLib, Qt's own dispatcher leaves the library's main loop alone.
/// Calls are still made, but the search for the server stands still after its first round: the first call takes some
/// seconds longer, and a server that is lost is not found again. A timer turns the loop then.
void turnLibrarysLoop(QTimer& timer) {
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
    turnLibrarysLoop(timer);

    QProgressDialog dialog("Converting", "Cancel", 0, kSteps);
    std::atomic<bool> cancelled{false};
    QObject::connect(&dialog, &QProgressDialog::canceled, [&] { cancelled = true; });
    dialog.setAutoClose(false);
    dialog.setAutoReset(false);
    dialog.show();

    // Made on the main thread. It finds the server, starts one if none runs, and looks after it from now on.
    krv::Bundle::setApplicationIdentifier("org.example.Qt6Example");
    const auto client = krv::KRVQuicktimeProcessClient::defaultClient();

    QApplication::setQuitOnLastWindowClosed(false);  // a cancelled conversion is waited for
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
