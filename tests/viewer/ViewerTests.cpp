// The viewer driven as a user would (offscreen): documents open and draw,
// edits redraw what they change, scrolling cancels and reuses, the media bin
// scrubs, closing leaves nothing half-written, saving round-trips.
//
// Each test makes its own media and cache folder. Pictures are checked in the
// grabbed timeline, waveforms column by column against the values the view
// was given (and, after an edit, against this file's own computation).
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "CapturingLogger.h"
#include "ClipInspector.h"
#include "DataModel/DmTimeline.h"
#include "OpenDocument.h"
#include "MainWindow.h"
#include "MediaBin.h"
#include "Paths.h"
#include "TimelineView.h"
#include "Timeouts.h"
#include "ViewerTestMedia.h"

#include <QCheckBox>
#include <QDoubleSpinBox>

using miravel::view::ClipInfo;
using miravel::view::MainWindow;
using miravel::view::TimelineView;

namespace {

// ms: generous, for sanitizer builds on busy machines
constexpr int kLong = static_cast<int>(std::chrono::milliseconds(ZOR::test::kGenerousForStress).count());

// A window on a cache folder of its own; everything is shut down (threads
// joined) when it goes.
struct Viewer {
    explicit Viewer(int thumbCount = 100) {
        root = folder.filePath(QStringLiteral("cache")).toStdString();
        window = std::make_unique<MainWindow>(MainWindow::Options{root, thumbCount});
        window->resize(1280, 760);
        window->show();
    }
    ~Viewer() {
        if (window) window->shutDown();
    }
    TimelineView* view() const { return window->timeline(); }
    std::string file(const std::string& name) const {
        return folder.filePath(QString::fromStdString(name)).toStdString();
    }

    // Writes an 8 s film and a 10 s tone, a document that cuts each in two
    // (F1, F2 of 4 s; T1, T2 of 5 s) and opens it; gives the document's path.
    std::string openFilmAndToneCut() {
        viewertest::writeFilm(file("film.mp4"), 8, 320, 180, 1);
        viewertest::writeTone(file("tone.wav"), 10);
        const std::string document = file("cut.otio");
        miravel::view::writeFileAtomically(
            document, viewertest::documentJson({{"F1", "film.mp4", 0, 4}, {"F2", "film.mp4", 4, 4}},
                                               {{"T1", "tone.wav", 0, 5}, {"T2", "tone.wav", 5, 5}}));
        window->openDocument(document);
        return document;
    }

    QTemporaryDir folder;
    std::string root;
    std::unique_ptr<MainWindow> window;
};

QImage grabTimeline(TimelineView* view) {
    return view->viewport()->grab().toImage().convertToFormat(QImage::Format_RGB32);
}

bool sameColour(QRgb pixel, const QColor& colour) {
    return qRed(pixel) == colour.red() && qGreen(pixel) == colour.green() && qBlue(pixel) == colour.blue();
}

// The columns of a clip's waveform band that are drawn whole (inside its
// frame and the view).
std::vector<int> waveColumns(TimelineView* view, const ClipInfo& clip, const TimelineView::WaveColumns& wave) {
    const QRect frame = view->clipRect(clip);
    std::vector<int> columns;
    for (size_t i = 0; i < wave.values.size(); ++i) {
        const int x = wave.first + static_cast<int>(i);
        if (x <= frame.left() + 1 || x >= frame.right() - 1) continue;
        if (x < TimelineView::kHeader || x >= view->viewport()->width()) continue;
        columns.push_back(x);
    }
    return columns;
}

// How many pixels of column x of the band are the waveform's colour.
int drawnHeight(const QImage& image, const QRect& band, int x, const QColor& colour) {
    int count = 0;
    for (int y = band.top(); y <= band.bottom(); ++y)
        if (sameColour(image.pixel(x, y), colour)) ++count;
    return count;
}

int reachOf(float value, const QRect& band) {
    const double half = band.height() / 2.0;
    return static_cast<int>(std::lround(std::clamp(static_cast<double>(value), 0.0, 1.0) * (half - 1.0)));
}

// Columns whose drawn height is not 2 x reach + 1 of the value given for it.
QStringList heightMismatches(TimelineView* view, const QImage& image, const ClipInfo& clip,
                             const TimelineView::WaveColumns& wave, const std::vector<float>& values) {
    QStringList wrong;
    const QRect band = view->waveRect(clip);
    const QColor colour = wave.muted ? TimelineView::mutedWaveColour() : TimelineView::waveColour();
    for (int x : waveColumns(view, clip, wave)) {
        const float value = values[static_cast<size_t>(x - wave.first)];
        const int expected = 2 * reachOf(value, band) + 1;
        const int drawn = drawnHeight(image, band, x, colour);
        if (drawn != expected)
            wrong << QStringLiteral("%1 column %2: drawn %3, value %4 gives %5")
                         .arg(QString::fromStdString(clip.name))
                         .arg(x)
                         .arg(drawn)
                         .arg(value)
                         .arg(expected);
    }
    return wrong;
}

const ClipInfo* clipNamed(TimelineView* view, const std::string& name) {
    if (view->model() == nullptr) return nullptr;
    for (const auto& track : view->model()->tracks)
        for (const ClipInfo& clip : track.clips)
            if (clip.name == name) return &clip;
    return nullptr;
}

// A round trip through the document's thread and the event bus's: what the
// data model sent before it has been delivered to the UI thread when it ends.
bool barrier(MainWindow* window) {
    QSignalSpy done(window, &MainWindow::editDone);
    window->current()->edit(QStringLiteral("barrier"), [](ZOR::IDmTimeline*) { return 0; });
    if (!done.wait(kLong)) return false;
    QCoreApplication::processEvents();
    return true;
}

// "V3" and the like (built by appending: GCC 12 warns wrongly about
// "text" + std::string).
std::string numbered(const char* prefix, int number) {
    std::string name(prefix);
    name += std::to_string(number);
    return name;
}

QString hex(const void* pointer) { return QString::number(reinterpret_cast<quintptr>(pointer), 16); }

// The frame indices of the media thumbnail manager's coarse-to-fine order for
// count pictures: 0, count - 1, then the middles of the gaps, pass by pass,
// right-most gaps first.
std::vector<int> coarseToFine(int count) {
    std::vector<int> order{0, count - 1};
    while (static_cast<int>(order.size()) < count) {
        std::vector<int> sorted = order;
        std::sort(sorted.begin(), sorted.end());
        bool added = false;
        for (size_t i = sorted.size() - 1; i > 0; --i) {
            const int a = sorted[i - 1];
            const int b = sorted[i];
            if (b - a > 1) {
                order.push_back(a + (b - a) / 2);
                added = true;
            }
        }
        if (!added) break;
    }
    return order;
}

}  // namespace

class ViewerTests : public QObject {
    Q_OBJECT

private slots:
    void demoDocumentDrawsEveryVisibleClip();
    void volumeEditRedrawsThatClipAtItsGainAndNoOther();
    void scrollingAwayCancelsAndScrollingBackDrawsFromTheCaches();
    void hoveringTheMediaBinShowsAPictureAtOnceAndFinerOnesAfter();
    void closingTheDocumentWhileExtractingReturnsAtOnceAndLeavesNothingHalfWritten();
    void closingTheProgramWhileExtractingLeavesNothingHalfWritten();
    void savedDocumentReloadsToTheSameTimeline();
};

// ---------------------------------------------------------------------------

void ViewerTests::demoDocumentDrawsEveryVisibleClip() {
    Viewer viewer;
    viewer.window->openDocument(std::string());  // the demo, made under the cache root
    TimelineView* view = viewer.view();
    QTRY_VERIFY_WITH_TIMEOUT(viewer.window->current() != nullptr && viewer.window->current()->isLoaded(), kLong);
    QCOMPARE(viewer.window->current()->path(), miravel::view::demoDocument(viewer.root));
    QTRY_VERIFY_WITH_TIMEOUT(view->settled(), kLong);

    const std::vector<const ClipInfo*> clips = view->visibleClips();
    std::set<std::string> names;
    for (const ClipInfo* clip : clips) names.insert(clip->name);
    QCOMPARE(names, (std::set<std::string>{"Opening", "Freeze", "Closing", "Music Bed", "Voice 1", "Voice 2"}));

    const QImage image = grabTimeline(view);
    for (const ClipInfo* clip : clips) {
        if (clip->video) {
            // Below the name tab, every pixel of the strip is a picture's.
            const QRect strip = view->stripRect(*clip).adjusted(1, 17, -1, 0);
            int placeholder = 0;
            std::set<QRgb> colours;
            for (int y = strip.top(); y <= strip.bottom(); ++y)
                for (int x = std::max(strip.left(), TimelineView::kHeader);
                     x <= std::min(strip.right(), image.width() - 1); ++x) {
                    if (sameColour(image.pixel(x, y), TimelineView::placeholderColour())) ++placeholder;
                    colours.insert(image.pixel(x, y));
                }
            QVERIFY2(placeholder == 0, qPrintable(QStringLiteral("%1: %2 placeholder pixels")
                                                      .arg(QString::fromStdString(clip->name))
                                                      .arg(placeholder)));
            QVERIFY2(colours.size() > 20, clip->name.c_str());
        }
        if (clip->audio != nullptr) {
            const auto wave = view->waveColumns(*clip);
            QVERIFY2(wave && wave->current, clip->name.c_str());
            const QStringList wrong = heightMismatches(view, image, *clip, *wave, wave->values);
            QVERIFY2(wrong.isEmpty(), qPrintable(wrong.mid(0, 5).join(QLatin1Char('\n'))));
            // The waveform has shape: heights differ and some are tall.
            const QRect band = view->waveRect(*clip);
            int tallest = 0;
            std::set<int> heights;
            for (int x : waveColumns(view, *clip, *wave)) {
                const int height = drawnHeight(image, band, x, TimelineView::waveColour());
                tallest = std::max(tallest, height);
                heights.insert(height);
            }
            QVERIFY2(tallest >= band.height() / 4 && heights.size() > 3, clip->name.c_str());
        }
    }
}

// ---------------------------------------------------------------------------

void ViewerTests::volumeEditRedrawsThatClipAtItsGainAndNoOther() {
    Viewer viewer;
    viewer.openFilmAndToneCut();
    TimelineView* view = viewer.view();
    QTRY_VERIFY_WITH_TIMEOUT(view->model() != nullptr, kLong);
    QVERIFY(clipNamed(view, "T2") != nullptr);
    ZOR::IDmClip* t2 = clipNamed(view, "T2")->clip;
    view->selectClip(t2);
    QTRY_VERIFY_WITH_TIMEOUT(view->settled(), kLong);
    QVERIFY(barrier(viewer.window.get()));
    QTRY_VERIFY_WITH_TIMEOUT(view->settled(), kLong);

    // Valid until the next edit replaces the view's copy of the timeline.
    const ClipInfo* edited = clipNamed(view, "T2");
    const std::vector<float> before = view->waveColumns(*edited)->values;
    const QImage imageBefore = grabTimeline(view);
    const QRect editedRect = view->clipRect(*edited);
    std::map<std::string, std::pair<int, int>> others;  // audio deliveries and asks
    std::map<std::string, int> pictures;
    for (const ClipInfo* clip : view->visibleClips()) {
        if (clip->clip == t2) continue;
        if (clip->audio != nullptr)
            others[clip->name] = {view->audioDeliveries(clip->audio), view->audioAsks(clip->audio)};
        if (clip->video) pictures[clip->name] = view->pictureDeliveries(clip->clip);
    }
    QCOMPARE(others.size(), 3u);  // F1, F2 (their sound) and T1

    // The edit as the user makes it, through the inspector.
    QSignalSpy edits(viewer.window.get(), &MainWindow::editDone);
    viewer.window->inspector()->volume()->setValue(-12.0);
    QVERIFY(edits.wait(kLong));
    QCOMPARE(edits.first().at(1).toInt(), 0);

    // This file's own computation: the clip has no keyframes, loudness or
    // volume gain, so each value is the raw peak times the square root of the
    // volume's gain, 10^(dB x 0.05) taken in single precision; at 0 dB that
    // factor is 1, so the values before are the raw peaks.
    const float gain = std::pow(10.0f, static_cast<float>(-12.0 * static_cast<double>(0.05f)));
    std::vector<float> expected;
    for (float value : before)
        expected.push_back(static_cast<float>(std::min(1.0, std::sqrt(static_cast<double>(gain)) * value)));
    // (Each edit gives the view a new copy of the timeline: clips are looked
    // up again by name, never kept across an edit.)
    QTRY_VERIFY_WITH_TIMEOUT(view->settled() && view->waveColumns(*clipNamed(view, "T2"))->values != before, kLong);
    QVERIFY(barrier(viewer.window.get()));
    QTRY_VERIFY_WITH_TIMEOUT(view->settled(), kLong);

    const ClipInfo* after = clipNamed(view, "T2");
    QCOMPARE(after->volumeDb, -12.0);
    const auto wave = view->waveColumns(*after);
    QVERIFY(wave && wave->current);
    const QImage image = grabTimeline(view);
    QStringList wrong = heightMismatches(view, image, *after, *wave, expected);
    QVERIFY2(wrong.isEmpty(), qPrintable(wrong.mid(0, 5).join(QLatin1Char('\n'))));
    int lower = 0;
    for (int x : waveColumns(view, *after, *wave))
        if (drawnHeight(imageBefore, view->waveRect(*after), x, TimelineView::waveColour()) >
            drawnHeight(image, view->waveRect(*after), x, TimelineView::waveColour()) + 4)
            ++lower;
    QVERIFY2(lower > 50, "the quieter waveform is visibly lower");

    // No other clip was asked again, given anything, or drawn differently.
    for (const ClipInfo* clip : view->visibleClips()) {
        if (clip->clip == t2) continue;
        if (clip->audio != nullptr) {
            QCOMPARE(view->audioDeliveries(clip->audio), others[clip->name].first);
            QCOMPARE(view->audioAsks(clip->audio), others[clip->name].second);
        }
        if (clip->video) QCOMPARE(view->pictureDeliveries(clip->clip), pictures[clip->name]);
    }
    int changed = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            if (!editedRect.contains(x, y) && image.pixel(x, y) != imageBefore.pixel(x, y)) ++changed;
    QCOMPARE(changed, 0);

    // Undo brings the values before back, redo the quieter ones.
    viewer.window->undo();
    QTRY_VERIFY_WITH_TIMEOUT(view->settled() && clipNamed(view, "T2")->volumeDb == 0.0 &&
                                 view->waveColumns(*clipNamed(view, "T2"))->values == before,
                             kLong);
    QTRY_COMPARE_WITH_TIMEOUT(viewer.window->inspector()->volume()->value(), 0.0, kLong);
    viewer.window->redo();
    QTRY_VERIFY_WITH_TIMEOUT(view->settled() && clipNamed(view, "T2")->volumeDb == -12.0 &&
                                 view->waveColumns(*clipNamed(view, "T2"))->values != before,
                             kLong);
    const auto redone = view->waveColumns(*clipNamed(view, "T2"));
    wrong = heightMismatches(view, grabTimeline(view), *clipNamed(view, "T2"), *redone, expected);
    QVERIFY2(wrong.isEmpty(), qPrintable(wrong.mid(0, 5).join(QLatin1Char('\n'))));
}

// ---------------------------------------------------------------------------

void ViewerTests::scrollingAwayCancelsAndScrollingBackDrawsFromTheCaches() {
    ZOR::test::ScopedCapture capture(ZOR::IBsLogger::Verbose);
    Viewer viewer;
    // Key frames 10 s apart: exact pictures take long to decode, so that
    // leaving finds them still being made.
    viewertest::writeFilm(viewer.file("film.mp4"), 30, 640, 360, 10);
    viewertest::writeTone(viewer.file("tone.wav"), 30);
    std::vector<viewertest::DocClip> video;
    std::vector<viewertest::DocClip> audio;
    for (int i = 0; i < 12; ++i) {
        video.push_back({numbered("V", i + 1), "film.mp4", static_cast<double>((i * 7) % 25), 5});
        audio.push_back({numbered("A", i + 1), "tone.wav", static_cast<double>((i * 3) % 25), 5});
    }
    const std::string document = viewer.file("cut.otio");
    miravel::view::writeFileAtomically(document, viewertest::documentJson(video, audio));
    viewer.window->openDocument(document);
    TimelineView* view = viewer.view();
    QTRY_VERIFY_WITH_TIMEOUT(view->model() != nullptr, kLong);
    const auto& levels = TimelineView::zoomLevels();
    view->setZoomLevel(static_cast<int>(std::find(levels.begin(), levels.end(), 40) - levels.begin()));
    view->scrollToX(0);
    QTRY_VERIFY_WITH_TIMEOUT(view->settled(), kLong);
    miravel::view::OpenDocument* open = viewer.window->current();

    const auto visible = [&] {
        std::set<const ClipInfo*> clips;
        for (const ClipInfo* clip : view->visibleClips()) clips.insert(clip);
        return clips;
    };
    const std::set<const ClipInfo*> first = visible();
    const auto cancelled = [&](const std::set<const ClipInfo*>& clips) {
        const std::vector<std::string> texts = capture.sink().texts();
        for (const ClipInfo* clip : clips) {
            if (clip->audio == nullptr) continue;
            const QRegularExpression line(QStringLiteral("^cancel queryer:[0-9a-f]+,obj:%1$").arg(hex(clip->audio)));
            if (std::none_of(texts.begin(), texts.end(), [&](const std::string& text) {
                    return line.match(QString::fromStdString(text)).hasMatch();
                }))
                return false;
        }
        return true;
    };

    // To the far end: every clip of the start leaves the view, and its audio
    // query is cancelled.
    capture.sink().clear();
    const int64_t asksBefore = open->videoAsksSent();
    view->scrollToX(view->contentWidth());
    const std::set<const ClipInfo*> second = visible();
    for (const ClipInfo* clip : second) QVERIFY(first.count(clip) == 0);
    QTRY_VERIFY_WITH_TIMEOUT(cancelled(first), kLong);
    // Back as soon as the pictures of the end are asked for: their making is
    // cancelled while it runs.
    size_t secondVideo = 0;
    for (const ClipInfo* clip : second) secondVideo += clip->video ? 1 : 0;
    QTRY_VERIFY_WITH_TIMEOUT(open->videoAsksSent() >= asksBefore + static_cast<int64_t>(secondVideo), kLong);
    const size_t mark = capture.sink().lines().size();
    std::map<const ZOR::IDmClip*, int> deliveries;
    for (const ClipInfo* clip : first)
        if (clip->audio != nullptr) deliveries[clip->audio] = view->audioDeliveries(clip->audio);
    const int64_t asksAtReturn = open->videoAsksSent();
    view->scrollToX(0);
    QTRY_VERIFY_WITH_TIMEOUT(cancelled(second), kLong);
    QTRY_VERIFY_WITH_TIMEOUT(
        [&] {
            for (const std::string& text : capture.sink().texts())
                if (QRegularExpression(QStringLiteral("^VideoFrameExtractTask cancel token:\\d+ \\(1 requests\\)$"))
                        .match(QString::fromStdString(text))
                        .hasMatch())
                    return true;
            return false;
        }(),
        kLong);

    // The start again, all from what is kept: no sound extracted anew, no
    // picture asked for, each waveform answered again.
    QTRY_VERIFY_WITH_TIMEOUT(view->settled(), kLong);
    for (const ClipInfo* clip : first)
        if (clip->audio != nullptr)
            QTRY_VERIFY_WITH_TIMEOUT(view->audioDeliveries(clip->audio) > deliveries[clip->audio], kLong);
    QVERIFY(barrier(viewer.window.get()));
    const std::vector<ZOR::test::CapturedLine> lines = capture.sink().lines();
    for (size_t i = mark; i < lines.size(); ++i) {
        QVERIFY2(lines[i].function != "ZOR::BsAudioThumbnailBuilder::appendWaveTask", lines[i].text.c_str());
        QVERIFY2(lines[i].function != "ZOR::AudioWaveExtractTask::append", lines[i].text.c_str());
    }
    QCOMPARE(open->videoAsksSent(), asksAtReturn);
    const QImage image = grabTimeline(view);
    for (const ClipInfo* clip : view->visibleClips()) {
        if (!clip->video) continue;
        const QRect strip = view->stripRect(*clip).adjusted(1, 17, -1, 0);
        for (int y = strip.top(); y <= strip.bottom(); y += 7)
            for (int x = std::max(strip.left(), TimelineView::kHeader); x <= std::min(strip.right(), image.width() - 1);
                 x += 5)
                QVERIFY(!sameColour(image.pixel(x, y), TimelineView::placeholderColour()));
    }
}

// ---------------------------------------------------------------------------

void ViewerTests::hoveringTheMediaBinShowsAPictureAtOnceAndFinerOnesAfter() {
    constexpr int kCount = 30;
    Viewer viewer(kCount);
    viewertest::writeFilm(viewer.file("film.mp4"), 30, 640, 360, 10);
    const std::string document = viewer.file("cut.otio");
    miravel::view::writeFileAtomically(document, viewertest::documentJson({{"V", "film.mp4", 0, 30}}, {}));
    viewer.window->openDocument(document);
    miravel::view::MediaBin* bin = viewer.window->mediaBin();
    QTRY_COMPARE_WITH_TIMEOUT(bin->tileCount(), 1, kLong);
    QVERIFY(bin->entry(0)->video);
    // Still, the tile shows the file's first picture.
    QTRY_COMPARE_WITH_TIMEOUT(bin->shownFrame(0), 0, kLong);
    QVERIFY(!bin->showsHoveredPicture(0));

    const std::string folder =
        miravel::view::mediaThumbnailRoot(viewer.root, std::filesystem::canonical(viewer.file("film.mp4")).string()) +
        "/media_thumbnail";
    QTRY_VERIFY_WITH_TIMEOUT(viewertest::pngFiles(folder).size() >= 3, kLong);
    // The picture made last, coarse to fine, is the one under the pointer.
    const int target = coarseToFine(kCount).back();
    QVERIFY(viewertest::pngFiles(folder).size() < static_cast<size_t>(kCount));

    QSignalSpy shown(bin, &miravel::view::MediaBin::pictureShown);
    QElapsedTimer clock;
    clock.start();
    bin->hoverTile(0, (target + 0.5) / kCount);
    QTRY_VERIFY_WITH_TIMEOUT(!shown.isEmpty(), kLong);
    const qint64 firstAfter = clock.elapsed();
    QVERIFY2(firstAfter < 1000, qPrintable(QStringLiteral("first picture after %1 ms").arg(firstAfter)));
    QCOMPARE(shown.first().at(2).toBool(), true);
    const int firstFrame = shown.first().at(1).toInt();
    QVERIFY2(firstFrame != target, "the first picture is the nearest one on disk, not the exact one");

    QTRY_VERIFY_WITH_TIMEOUT(bin->shownFrame(0) == target, kLong);
    QVERIFY(bin->showsHoveredPicture(0));
    // Each picture shown was nearer than the one before.
    int distance = kCount;
    for (const QList<QVariant>& picture : shown) {
        const int frame = picture.at(1).toInt();
        QVERIFY(picture.at(2).toBool());
        QVERIFY2(std::abs(frame - target) <= distance, qPrintable(QStringLiteral("frame %1").arg(frame)));
        distance = std::abs(frame - target);
    }
    QVERIFY(shown.size() >= 2);
    QCOMPARE(distance, 0);

    // Leaving shows the still picture again.
    bin->leaveTile();
    QTRY_VERIFY_WITH_TIMEOUT(bin->shownFrame(0) == 0 && !bin->showsHoveredPicture(0), kLong);
}

// ---------------------------------------------------------------------------

void ViewerTests::closingTheDocumentWhileExtractingReturnsAtOnceAndLeavesNothingHalfWritten() {
    Viewer viewer;
    viewertest::writeFilm(viewer.file("film.mp4"), 30, 640, 360, 10);
    viewertest::writeTone(viewer.file("tone.wav"), 30);
    std::vector<viewertest::DocClip> video;
    for (int i = 0; i < 6; ++i) video.push_back({numbered("V", i + 1), "film.mp4", i * 4.0, 5});
    const std::string document = viewer.file("cut.otio");
    miravel::view::writeFileAtomically(document, viewertest::documentJson(video, {{"A", "tone.wav", 0, 30}}));
    viewer.window->openDocument(document);
    TimelineView* view = viewer.view();
    QTRY_VERIFY_WITH_TIMEOUT(view->model() != nullptr, kLong);
    view->zoomIn();
    view->zoomIn();
    QSignalSpy pictures(view, &TimelineView::picturesArrived);
    QTRY_VERIFY_WITH_TIMEOUT(!pictures.isEmpty(), kLong);
    viewer.window->mediaBin()->hoverTile(0, 0.37);
    QVERIFY(!view->settled());  // still extracting

    QElapsedTimer clock;
    clock.start();
    viewer.window->closeDocument();
    const qint64 closing = clock.elapsed();
    QVERIFY2(closing < 250, qPrintable(QStringLiteral("closing took %1 ms").arg(closing)));
    QVERIFY(viewer.view()->model() == nullptr);
    QTRY_COMPARE_WITH_TIMEOUT(viewer.window->closingDocuments(), 0u, kLong);
    viewer.window->shutDown();

    const std::vector<std::string> unfinished = viewertest::unfinishedFiles(viewer.root);
    QVERIFY2(unfinished.empty(), unfinished.empty() ? "" : unfinished.front().c_str());
    const std::vector<std::string> files = viewertest::pngFiles(viewer.root);
    QVERIFY(!files.empty());
    for (const std::string& file : files) QVERIFY2(!QImage(QString::fromStdString(file)).isNull(), file.c_str());
}

void ViewerTests::closingTheProgramWhileExtractingLeavesNothingHalfWritten() {
    QTemporaryDir folder;
    const std::string film = folder.filePath(QStringLiteral("film.mp4")).toStdString();
    viewertest::writeFilm(film, 30, 640, 360, 10);
    std::vector<viewertest::DocClip> video;
    for (int i = 0; i < 6; ++i) video.push_back({numbered("V", i + 1), "film.mp4", i * 4.0, 5});
    const QString document = folder.filePath(QStringLiteral("cut.otio"));
    miravel::view::writeFileAtomically(document.toStdString(), viewertest::documentJson(video, {}));

    QProcess viewer;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("XDG_CACHE_HOME"), folder.filePath(QStringLiteral("xdg")));
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    viewer.setProcessEnvironment(environment);
    viewer.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    viewer.start(QStringLiteral(MIRAVEL_VIEW_BINARY), {document, QStringLiteral("--size"), QStringLiteral("1600x600")});
    QVERIFY(viewer.waitForStarted(kLong));
    const std::string root = folder.filePath(QStringLiteral("xdg/miravel")).toStdString();
    QTRY_VERIFY_WITH_TIMEOUT(!viewertest::pngFiles(root + "/frames").empty(), kLong);

    QElapsedTimer clock;
    clock.start();
    viewer.terminate();  // as the window's close
    QVERIFY(viewer.waitForFinished(kLong));
    const qint64 ending = clock.elapsed();
    QCOMPARE(viewer.exitStatus(), QProcess::NormalExit);
    QCOMPARE(viewer.exitCode(), 0);
    QVERIFY2(ending < 10'000, qPrintable(QStringLiteral("the program took %1 ms to end").arg(ending)));

    const std::vector<std::string> unfinished = viewertest::unfinishedFiles(root);
    QVERIFY2(unfinished.empty(), unfinished.empty() ? "" : unfinished.front().c_str());
    for (const std::string& file : viewertest::pngFiles(root))
        QVERIFY2(!QImage(QString::fromStdString(file)).isNull(), file.c_str());
}

// ---------------------------------------------------------------------------

void ViewerTests::savedDocumentReloadsToTheSameTimeline() {
    Viewer viewer;
    const std::string document = viewer.openFilmAndToneCut();
    TimelineView* view = viewer.view();
    QTRY_VERIFY_WITH_TIMEOUT(view->model() != nullptr, kLong);

    // Edits through the inspector, one clip at a time.
    QSignalSpy edits(viewer.window.get(), &MainWindow::editDone);
    miravel::view::ClipInspector* inspector = viewer.window->inspector();
    view->selectClip(clipNamed(view, "T1")->clip);
    inspector->volume()->setValue(-7.5);
    QTRY_COMPARE_WITH_TIMEOUT(edits.size(), 1, kLong);
    inspector->mute()->setChecked(true);
    QTRY_COMPARE_WITH_TIMEOUT(edits.size(), 2, kLong);
    view->selectClip(clipNamed(view, "F2")->clip);
    inspector->reverse()->setChecked(true);
    QTRY_COMPARE_WITH_TIMEOUT(edits.size(), 3, kLong);
    view->selectClip(clipNamed(view, "T2")->clip);
    inspector->ducking()->setChecked(true);
    QTRY_COMPARE_WITH_TIMEOUT(edits.size(), 4, kLong);
    inspector->duckingDepth()->setValue(0.4);
    QTRY_COMPARE_WITH_TIMEOUT(edits.size(), 5, kLong);
    for (const QList<QVariant>& edit : edits) QCOMPARE(edit.at(1).toInt(), 0);
    const std::shared_ptr<const miravel::view::TimelineModel> edited = viewer.window->current()->model();

    const std::string saved = viewer.file("saves/cut-edited.otio");
    std::filesystem::create_directories(std::filesystem::path(saved).parent_path());
    QSignalSpy savedSpy(viewer.window.get(), &MainWindow::documentSaved);
    viewer.window->saveAs(QString::fromStdString(saved));
    QVERIFY(savedSpy.wait(kLong));
    QCOMPARE(savedSpy.first().at(1).toString(), QString());
    // Only the document is in its folder: it was renamed into place whole.
    std::vector<std::string> inFolder;
    for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(saved).parent_path()))
        inFolder.push_back(entry.path().string());
    QCOMPARE(inFolder, std::vector<std::string>{saved});

    // The document as written: the same clips and ranges, the metadata values
    // of the document but where they were edited.
    ZOR::DmTimelineDesc before;
    ZOR::DmTimelineDesc after;
    std::string error;
    QCOMPARE(ZOR::parseTimelineDocument(document.c_str(), &before, &error), 0);
    QCOMPARE(ZOR::parseTimelineDocument(saved.c_str(), &after, &error), 0);
    QCOMPARE(after.tracks.size(), before.tracks.size());
    for (size_t t = 0; t < before.tracks.size(); ++t) {
        QCOMPARE(after.tracks[t].kind, before.tracks[t].kind);
        QCOMPARE(after.tracks[t].clips.size(), before.tracks[t].clips.size());
        for (size_t i = 0; i < before.tracks[t].clips.size(); ++i) {
            const ZOR::DmClipDesc& was = before.tracks[t].clips[i];
            const ZOR::DmClipDesc& is = after.tracks[t].clips[i];
            QCOMPARE(is.name, was.name);
            QCOMPARE(is.mediaPath, was.mediaPath);
            QCOMPARE(is.begin, was.begin);
            QCOMPARE(is.end, was.end);
            QCOMPARE(is.markIn, was.markIn);
            QCOMPARE(is.markOut, was.markOut);
            QCOMPARE(is.speed, was.speed);
            QCOMPARE(is.volumeDb, was.name == "T1" ? -7.5 : was.volumeDb);
            QCOMPARE(is.mute, was.name == "T1" ? true : was.mute);
            QCOMPARE(is.reverse, was.name == "F2" ? true : was.reverse);
            QCOMPARE(is.ducking.present, was.name == "T2" ? true : was.ducking.present);
            if (was.name == "T2") {
                QCOMPARE(is.ducking.enabled, true);
                QCOMPARE(is.ducking.depth, 0.4);
            }
            QCOMPARE(is.volumeGainDb, was.volumeGainDb);
            QCOMPARE(is.loudnessEnabled, was.loudnessEnabled);
            QCOMPARE(is.enabled, was.enabled);
        }
    }

    // And opened again, the timeline is the one that was saved.
    viewer.window->openDocument(saved);
    QTRY_VERIFY_WITH_TIMEOUT(viewer.window->current() != nullptr && viewer.window->current()->isLoaded(), kLong);
    const std::shared_ptr<const miravel::view::TimelineModel> reloaded = viewer.window->current()->model();
    QCOMPARE(reloaded->tracks.size(), edited->tracks.size());
    for (size_t t = 0; t < edited->tracks.size(); ++t) {
        QCOMPARE(reloaded->tracks[t].clips.size(), edited->tracks[t].clips.size());
        for (size_t i = 0; i < edited->tracks[t].clips.size(); ++i) {
            const ClipInfo& was = edited->tracks[t].clips[i];
            const ClipInfo& is = reloaded->tracks[t].clips[i];
            QCOMPARE(is.name, was.name);
            QCOMPARE(is.mediaPath, was.mediaPath);
            QCOMPARE(is.begin, was.begin);
            QCOMPARE(is.end, was.end);
            QCOMPARE(is.markIn, was.markIn);
            QCOMPARE(is.markOut, was.markOut);
            QCOMPARE(is.volumeDb, was.volumeDb);
            QCOMPARE(is.mute, was.mute);
            QCOMPARE(is.reverse, was.reverse);
            QCOMPARE(is.ducking, was.ducking);
            QCOMPARE(is.duckingDepth, was.duckingDepth);
            QCOMPARE(is.duckingFade, was.duckingFade);
            QCOMPARE(is.duckingFadeRatio, was.duckingFadeRatio);
        }
    }
}

QTEST_MAIN(ViewerTests)
#include "ViewerTests.moc"
