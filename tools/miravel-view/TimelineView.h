// The timeline: a ruler and every track, each clip with its frame strip (the
// clip thumbnail service's pictures at the clip's visible times, sized to the
// lane) and its waveform (one point per pixel of the clip's visible part).
//
// Only what is visible is asked for, at the resolution it is drawn at; what
// leaves the view is cancelled; stale notices make the clip they name ask
// again. Pictures and waveforms are kept here as they arrive and painting
// only draws what is kept: a clip whose data is missing shows a placeholder
// until it arrives. Everything here runs on the UI thread and never waits.
#pragma once

#include <QAbstractScrollArea>
#include <QImage>
#include <QTimer>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <unordered_map>
#include <vector>

#include "OpenDocument.h"
#include "TimelineModel.h"

namespace miravel::view {

class TimelineView : public QAbstractScrollArea {
    Q_OBJECT

public:
    // Geometry of the lanes, in pixels.
    static constexpr int kHeader = 92;  // the track names, left
    static constexpr int kRuler = 24;
    static constexpr int kInset = 3;
    static constexpr int kStripHeight = 54;  // pictures in a video lane
    static constexpr int kVideoWaveHeight = 30;
    static constexpr int kNameBar = 14;  // clip names of audio lanes, above the waveform
    static constexpr int kAudioWaveHeight = 56;
    static constexpr int kTrackGap = 4;
    // Pictures kept for clips out of view before the oldest are let go.
    static constexpr size_t kPictureBudget = 3000;

    // Colours a test can look for.
    static QColor backgroundColour();
    static QColor placeholderColour();  // where a picture is still missing
    static QColor waveColour();
    static QColor mutedWaveColour();

    // Zoom levels, in pixels per second; each divides 10^7 cns exactly.
    static const std::vector<int>& zoomLevels();

    explicit TimelineView(QWidget* parent = nullptr);
    ~TimelineView() override;

    // Shows the document (null: nothing). The view keeps no reference to
    // it beyond this; call with null before the document closes.
    void setDocument(OpenDocument* document);
    OpenDocument* current() const { return document_; }
    const TimelineModel* model() const { return model_.get(); }

    // Navigation.
    int zoomLevel() const { return zoomLevel_; }
    int pixelsPerSecond() const { return zoomLevels()[static_cast<size_t>(zoomLevel_)]; }
    int64_t cnsPerPixel() const { return 10'000'000 / pixelsPerSecond(); }
    // Keeps the time under viewport column anchorX where it is (-1: the middle).
    void setZoomLevel(int level, int anchorX = -1);
    void zoomIn(int anchorX = -1) { setZoomLevel(zoomLevel_ + 1, anchorX); }
    void zoomOut(int anchorX = -1) { setZoomLevel(zoomLevel_ - 1, anchorX); }
    // The closest level at which the whole timeline fits the view.
    void zoomToFit();
    int fittingZoomLevel() const;
    void scrollToX(int contentX);
    int scrollX() const;
    int contentWidth() const;
    int laneWidth() const;
    // Shows the clip at the left of the view.
    void scrollToClip(const ZOR::IDmClip* clip);

    // Selection.
    ZOR::IDmClip* selectedClip() const { return selected_; }
    void selectClip(ZOR::IDmClip* clip);

    // What is drawn, for tests and measurements (viewport coordinates).
    std::vector<const ClipInfo*> visibleClips() const;
    QRect clipRect(const ClipInfo& clip) const;
    QRect stripRect(const ClipInfo& clip) const;  // empty without pictures
    QRect waveRect(const ClipInfo& clip) const;   // empty without sound
    // Viewport columns [first, first + count) of the clip's current
    // waveform query, or nullopt when none is out or drawn.
    struct WaveColumns {
        int first = 0;  // viewport x of value 0
        std::vector<float> values;
        bool current = false;  // the values answer the query for the view as it is
        bool muted = false;
    };
    std::optional<WaveColumns> waveColumns(const ClipInfo& clip) const;
    // Every visible clip has its waveform answered for the view as it is and
    // a picture in every visible slot.
    bool settled() const;
    int audioDeliveries(const ZOR::IDmClip* audioClip) const;
    int audioAsks(const ZOR::IDmClip* audioClip) const;
    int pictureDeliveries(const ZOR::IDmClip* clip) const;
    // When a waveform and a picture were first painted (nullopt: not yet).
    std::optional<std::chrono::steady_clock::time_point> firstWaveformPainted() const { return firstWave_; }
    std::optional<std::chrono::steady_clock::time_point> firstPicturePainted() const { return firstPicture_; }

signals:
    void clipSelected(ZOR::IDmClip* clip);
    void waveformArrived(ZOR::IDmClip* audioClip);
    void picturesArrived(ZOR::IDmClip* clip);
    void viewChanged();

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void scrollContentsBy(int dx, int dy) override;
    void wheelEvent(QWheelEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    struct AudioState {
        std::optional<AudioAsk> asked;  // the query out for the view, if any
        bool stale = false;             // told stale since the last answer: ask again
        int64_t begin = 0;              // the values last delivered, over [begin, end) of clip time
        int64_t end = 0;
        std::shared_ptr<const std::vector<float>> values;
        bool current = false;  // the values answer asked
        int deliveries = 0;
        int asks = 0;
    };
    struct VideoState {
        std::map<int64_t, QImage> pictures;  // by the media time asked for
        std::optional<VideoAsk> asked;       // the times asked and not yet delivered
        uint64_t lastSeen = 0;               // the update in which it was last visible
        int deliveries = 0;
    };
    struct Slot {
        int contentX = 0;  // left edge
        int width = 0;
        int64_t time = 0;  // media time, on the 10 ms quantum
    };

    void setModel(std::shared_ptr<const TimelineModel> model);
    void onAudio(ZOR::IDmClip* clip, qint64 begin, qint64 end, std::shared_ptr<const std::vector<float>> values);
    void onPictures(ZOR::IDmClip* clip, int width, int height, const QVector<Picture>& pictures);
    void onAudioStale(ZOR::IDmClip* clip);
    void onVideoStale(ZOR::IDmClip* clip);
    void onEdited();

    // Asks for what became visible and cancels what left, once per turn of
    // the event loop however often the view changed.
    void scheduleRequests();
    void updateRequests();
    void updateScrollBars();
    void evictPictures();

    int laneTop(size_t track) const;  // content y
    int laneHeight(size_t track) const;
    int contentHeight() const;
    int thumbWidth(const ClipInfo& clip) const;
    int64_t contentXOf(int64_t time) const;  // floor
    std::vector<Slot> visibleSlots(const ClipInfo& clip, int firstX, int lastX) const;
    std::optional<AudioAsk> audioAskFor(const ClipInfo& clip, int firstX, int lastX) const;
    const ClipInfo* clipAt(const QPoint& point) const;
    void drawClip(QPainter& painter, const TrackInfo& track, const ClipInfo& clip);
    void drawRuler(QPainter& painter);

    OpenDocument* document_ = nullptr;
    std::vector<QMetaObject::Connection> connections_;
    std::shared_ptr<const TimelineModel> model_;
    int zoomLevel_ = 10;
    ZOR::IDmClip* selected_ = nullptr;
    std::unordered_map<ZOR::IDmClip*, AudioState> audio_;  // by sound clip
    std::unordered_map<ZOR::IDmClip*, VideoState> video_;  // by track clip
    bool requestsScheduled_ = false;
    uint64_t updates_ = 0;
    std::optional<std::chrono::steady_clock::time_point> firstWave_;
    std::optional<std::chrono::steady_clock::time_point> firstPicture_;
};

}  // namespace miravel::view
