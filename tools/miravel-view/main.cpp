// miravel-view: a timeline editor's window on Miravel.
//
//   miravel-view [DOC] [--tour] [--measure] [--screenshot PNG] [--size WxH]
//                [--log SEVERITY] [--log-file PATH]
//   miravel-view --make-document OUT [--clips N]
//
// Without DOC it opens the demo's document, made under the cache root on
// first use. --tour runs a scripted tour of the document and quits;
// --measure prints, at exit, one JSON document with the UI thread's stalls
// and how soon the first waveform and picture were drawn; --screenshot grabs
// the window after the tour. --make-document writes a long document of N
// clips (default 200) cut from the demo's media, and exits.
#include <QApplication>
#include <QPixmap>
#include <QSocketNotifier>
#include <QTimer>

#include <fcntl.h>
#include <unistd.h>

#include <csignal>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "DemoMedia.h"
#include "MainWindow.h"
#include "Paths.h"
#include "StallWatchdog.h"
#include "TimelineView.h"
#include "Tour.h"
#include "ZorLogger/ZorLogger.h"

namespace {

constexpr const char* kUsage =
    "usage: miravel-view [DOC] [--tour] [--measure] [--screenshot PNG] [--size WxH]\n"
    "                    [--log SEVERITY] [--log-file PATH]\n"
    "       miravel-view --make-document OUT [--clips N]\n";

struct Arguments {
    std::string document;
    bool tour = false;
    bool measure = false;
    std::string screenshot;
    int width = 1280;
    int height = 760;
    std::optional<std::string> log;
    std::optional<std::string> logFile;
    std::string makeDocument;
    int clips = 200;
};

[[noreturn]] void usage(const std::string& problem) {
    std::fprintf(stderr, "miravel-view: %s\n%s", problem.c_str(), kUsage);
    std::exit(2);
}

Arguments parse(const QStringList& list) {
    Arguments arguments;
    std::vector<std::string> args;
    for (const QString& each : list) args.push_back(each.toStdString());
    const auto value = [&](size_t& i) {
        if (i + 1 >= args.size()) usage(args[i] + " needs a value");
        return args[++i];
    };
    for (size_t i = 1; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--tour") {
            arguments.tour = true;
        } else if (arg == "--measure") {
            arguments.measure = true;
        } else if (arg == "--screenshot") {
            arguments.screenshot = value(i);
        } else if (arg == "--size") {
            const std::string size = value(i);
            if (std::sscanf(size.c_str(), "%dx%d", &arguments.width, &arguments.height) != 2 || arguments.width < 320 ||
                arguments.height < 240)
                usage("--size needs WxH of at least 320x240");
        } else if (arg == "--log") {
            arguments.log = value(i);
        } else if (arg == "--log-file") {
            arguments.logFile = value(i);
        } else if (arg == "--make-document") {
            arguments.makeDocument = value(i);
        } else if (arg == "--clips") {
            arguments.clips = std::atoi(value(i).c_str());
            if (arguments.clips < 1) usage("--clips needs a number of 1 or more");
        } else if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        } else if (!arg.empty() && arg[0] == '-') {
            usage("unknown option " + arg);
        } else if (arguments.document.empty()) {
            arguments.document = arg;
        } else {
            usage("one document at most");
        }
    }
    return arguments;
}

void setUpLogging(const Arguments& arguments) {
    std::optional<ZOR::IBsLogger::Severity> threshold;
    if (arguments.log) {
        threshold = ZOR::severityFromName(*arguments.log);
        if (!threshold) usage("--log needs a severity (trace, timing, debug, info, warning, error, off)");
    } else {
        threshold = ZOR::severityFromEnvironment();
    }
    if (!threshold && !arguments.logFile) return;
    std::shared_ptr<ZOR::IBsLogger> sink;
    if (arguments.logFile) {
        std::string error;
        sink = ZOR::makeFileLogger(*arguments.logFile, &error);
        if (!sink) usage("cannot open the log file " + error);
    } else {
        sink = ZOR::makeStderrLogger();
    }
    ZOR::ZorLoggerWrapper* wrapper = ZOR::setupLogging(sink, threshold.value_or(ZOR::IBsLogger::Info));
    if (arguments.log) wrapper->setThreshold(*threshold);
}

std::string milliseconds(std::optional<std::chrono::steady_clock::time_point> at,
                         std::optional<std::chrono::steady_clock::time_point> from) {
    if (!at || !from) return "null";
    return std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(*at - *from).count());
}

// SIGTERM and SIGINT close the window as the user would: the handler only
// writes a byte to a pipe that the event loop watches.
int signalPipe[2] = {-1, -1};

void onSignal(int /*signal*/) {
    const char byte = 1;
    (void)!::write(signalPipe[1], &byte, 1);
}

void closeOnSignals(QWidget& window) {
    if (::pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) return;
    auto* notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, &window);
    QObject::connect(notifier, &QSocketNotifier::activated, &window, [&window] {
        char byte = 0;
        while (::read(signalPipe[0], &byte, 1) > 0) {
        }
        window.close();
    });
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", value);
    return text;
}

}  // namespace

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("miravel-view"));
    const Arguments arguments = parse(QApplication::arguments());
    const std::string root = miravel::view::cacheRoot();

    if (!arguments.makeDocument.empty()) {
        try {
            miravel::view::writeManyClipsDocument(root, arguments.makeDocument, arguments.clips);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "miravel-view: %s\n", error.what());
            return 1;
        }
        std::printf("{\"document\": \"%s\", \"clips\": %d}\n", arguments.makeDocument.c_str(), arguments.clips);
        return 0;
    }
    setUpLogging(arguments);
    // The demo's media are made with FFmpeg's encoders, which are chatty.
    miravel::demo::quietEncoderMessages();

    int code = 0;
    std::optional<miravel::view::StallWatchdog::Figures> stalls;
    std::optional<std::chrono::milliseconds> tourTime;
    std::string firstWaveform = "null";
    std::string firstPicture = "null";
    {
        miravel::view::StallWatchdog watchdog;
        miravel::view::MainWindow window({root, 100});
        window.resize(arguments.width, arguments.height);
        closeOnSignals(window);
        window.show();
        if (arguments.measure) watchdog.start();
        window.openDocument(arguments.document);

        miravel::view::Tour tour(window);
        if (arguments.tour) {
            QObject::connect(&tour, &miravel::view::Tour::finished, &app, [&] {
                if (tour.failed()) {
                    code = 1;
                } else if (!arguments.screenshot.empty() &&
                           !window.grab().save(QString::fromStdString(arguments.screenshot))) {
                    std::fprintf(stderr, "miravel-view: %s: cannot write the screenshot\n",
                                 arguments.screenshot.c_str());
                    code = 1;
                }
                QApplication::quit();
            });
            tour.start();
        }
        const int ran = QApplication::exec();
        if (code == 0) code = ran;
        watchdog.stop();
        if (arguments.measure) {
            stalls = watchdog.figures();
            firstWaveform = milliseconds(window.timeline()->firstWaveformPainted(), window.openedAt());
            firstPicture = milliseconds(window.timeline()->firstPicturePainted(), window.openedAt());
            tourTime = tour.duration();
        }
        window.shutDown();
    }
    if (stalls) {
        std::printf(
            "{\"stalls_ms\": {\"count\": %lld, \"p50\": %s, \"p99\": %s, \"max\": %s}, \"first_waveform_ms\": %s, "
            "\"first_picture_ms\": %s, \"tour_ms\": %s}\n",
            static_cast<long long>(stalls->count), number(stalls->p50).c_str(), number(stalls->p99).c_str(),
            number(stalls->max).c_str(), firstWaveform.c_str(), firstPicture.c_str(),
            tourTime ? std::to_string(tourTime->count()).c_str() : "null");
        std::fflush(stdout);
    }
    ZOR::shutdownLogging();
    return code;
}
