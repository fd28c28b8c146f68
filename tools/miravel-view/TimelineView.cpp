#include "TimelineView.h"

#include <QKeyEvent>
#include <QMouseEvent>
#include <QPaintEvent>
#include <QPainter>
#include <QScrollBar>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>

#include "DataModel/DmTimeline.h"

namespace miravel::view {
namespace {

constexpr int64_t kSecond = 10'000'000;
// The clip thumbnail service keeps one picture per 10 ms of media time;
// asking on that grid makes every ask of a quantum the same ask.
constexpr int64_t kPictureQuantum = 100'000;

int64_t floorDiv(int64_t a, int64_t b) { return a >= 0 ? a / b : -((-a + b - 1) / b); }
int64_t ceilDiv(int64_t a, int64_t b) { return -floorDiv(-a, b); }

const QColor kLane(40, 40, 43);
const QColor kHeaderFill(33, 33, 36);
const QColor kRulerFill(28, 28, 30);
const QColor kRulerTicks(150, 150, 150);
const QColor kVideoBody(40, 62, 92);
const QColor kVideoEdge(140, 190, 255);
const QColor kAudioBody(34, 70, 46);
const QColor kAudioEdge(150, 230, 160);
const QColor kSelected(255, 210, 90);
const QColor kText(225, 225, 225);

QString timeText(int64_t seconds) {
    return QStringLiteral("%1:%2").arg(seconds / 60).arg(seconds % 60, 2, 10, QLatin1Char('0'));
}

}  // namespace

QColor TimelineView::backgroundColour() { return {24, 24, 26}; }
QColor TimelineView::placeholderColour() { return {58, 66, 80}; }
QColor TimelineView::waveColour() { return {112, 214, 130}; }
QColor TimelineView::mutedWaveColour() { return {128, 128, 128}; }

const std::vector<int>& TimelineView::zoomLevels() {
    static const std::vector<int> levels{1,   2,   4,   5,   8,   10,  16,  20,  25,  32,   40,   50,   64,   80,  100,
                                         125, 160, 200, 250, 320, 400, 500, 625, 800, 1000, 1250, 1600, 2000, 2500};
    return levels;
}

TimelineView::TimelineView(QWidget* parent) : QAbstractScrollArea(parent) {
    setFocusPolicy(Qt::StrongFocus);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOn);
    setVerticalScrollBarPolicy(Qt::ScrollBarAsNeeded);
    viewport()->setAttribute(Qt::WA_OpaquePaintEvent);
    setMinimumHeight(kRuler + 2 * 92);
}

TimelineView::~TimelineView() { setDocument(nullptr); }

// ---------------------------------------------------------------------------
// The document

void TimelineView::setDocument(OpenDocument* document) {
    for (const QMetaObject::Connection& connection : connections_) disconnect(connection);
    connections_.clear();
    document_ = document;
    audio_.clear();
    video_.clear();
    selected_ = nullptr;
    model_.reset();
    if (document_ != nullptr) {
        // Measured anew for each document; kept after it is closed.
        firstWave_.reset();
        firstPicture_.reset();
        connections_.push_back(connect(document_, &OpenDocument::loaded, this, [this] {
            setModel(document_->model());
            zoomToFit();
        }));
        connections_.push_back(connect(document_, &OpenDocument::audioArrived, this, &TimelineView::onAudio));
        connections_.push_back(connect(document_, &OpenDocument::picturesArrived, this, &TimelineView::onPictures));
        connections_.push_back(connect(document_, &OpenDocument::audioStale, this, &TimelineView::onAudioStale));
        connections_.push_back(connect(document_, &OpenDocument::videoStale, this, &TimelineView::onVideoStale));
        connections_.push_back(connect(document_, &OpenDocument::edited, this, &TimelineView::onEdited));
        if (document_->isLoaded()) {
            setModel(document_->model());
            zoomToFit();
        }
    }
    updateScrollBars();
    viewport()->update();
}

void TimelineView::setModel(std::shared_ptr<const TimelineModel> model) {
    model_ = std::move(model);
    updateScrollBars();
    scheduleRequests();
    viewport()->update();
    emit viewChanged();
}

void TimelineView::onEdited() {
    if (document_ != nullptr) setModel(document_->model());
}

void TimelineView::onAudio(ZOR::IDmClip* clip, qint64 begin, qint64 end,
                           std::shared_ptr<const std::vector<float>> values) {
    auto found = audio_.find(clip);
    if (found == audio_.end()) return;  // not a clip of this view (any more)
    AudioState& state = found->second;
    state.begin = begin;
    state.end = end;
    state.values = std::move(values);
    ++state.deliveries;
    const bool sameRange = state.asked && state.asked->begin == begin && state.asked->end == end;
    state.current = sameRange && !state.stale && state.asked->count == state.values->size();
    // An ask of the same range at another resolution, made while the first
    // was still being extracted, is answered at the first one's resolution:
    // asked again now that the extraction is done, it is answered as asked.
    if (sameRange && state.asked->count != state.values->size()) {
        state.stale = true;
        scheduleRequests();
    }
    if (const ClipInfo* info = model_ != nullptr ? model_->find(clip) : nullptr) viewport()->update(clipRect(*info));
    emit waveformArrived(clip);
}

void TimelineView::onPictures(ZOR::IDmClip* clip, int /*width*/, int /*height*/, const QVector<Picture>& pictures) {
    VideoState& state = video_[clip];
    for (const Picture& picture : pictures) {
        state.pictures[picture.time] = picture.image;
        if (state.asked) {
            auto& times = state.asked->times;
            times.erase(std::remove(times.begin(), times.end(), picture.time), times.end());
        }
        ++state.deliveries;
    }
    if (const ClipInfo* info = model_ != nullptr ? model_->find(clip) : nullptr) viewport()->update(clipRect(*info));
    emit picturesArrived(clip);
}

void TimelineView::onAudioStale(ZOR::IDmClip* clip) {
    auto found = audio_.find(clip);
    if (found == audio_.end()) return;
    // The values drawn stay until the new answer comes; the clip asks again
    // if it is in view (one out of view asks when it comes back).
    found->second.stale = true;
    found->second.current = false;
    scheduleRequests();
}

void TimelineView::onVideoStale(ZOR::IDmClip* clip) {
    auto found = video_.find(clip);
    if (found == video_.end()) return;
    found->second.pictures.clear();
    found->second.asked.reset();
    scheduleRequests();
    viewport()->update();
}

// ---------------------------------------------------------------------------
// Geometry

int TimelineView::laneHeight(size_t track) const {
    if (model_ == nullptr || track >= model_->tracks.size()) return 0;
    return model_->tracks[track].video ? kInset + kStripHeight + 2 + kVideoWaveHeight + kInset
                                       : kInset + kNameBar + kAudioWaveHeight + kInset;
}

int TimelineView::laneTop(size_t track) const {
    int y = kRuler + kTrackGap;
    for (size_t t = 0; t < track; ++t) y += laneHeight(t) + kTrackGap;
    return y;
}

int TimelineView::contentHeight() const { return model_ != nullptr ? laneTop(model_->tracks.size()) : kRuler; }

int TimelineView::laneWidth() const { return std::max(1, viewport()->width() - kHeader); }

int64_t TimelineView::contentXOf(int64_t time) const { return floorDiv(time, cnsPerPixel()); }

int TimelineView::contentWidth() const {
    const int64_t duration = model_ != nullptr ? model_->duration : 0;
    return static_cast<int>(std::min<int64_t>(contentXOf(duration) + 40, 1'000'000'000));
}

int TimelineView::scrollX() const { return horizontalScrollBar()->value(); }

void TimelineView::scrollToX(int contentX) { horizontalScrollBar()->setValue(contentX); }

void TimelineView::scrollToClip(const ZOR::IDmClip* clip) {
    const ClipInfo* info = model_ != nullptr ? model_->find(clip) : nullptr;
    if (info != nullptr) scrollToX(static_cast<int>(contentXOf(info->begin)));
}

int TimelineView::thumbWidth(const ClipInfo& clip) const {
    const double width = static_cast<double>(kStripHeight) * clip.videoWidth / std::max(1, clip.videoHeight);
    return std::clamp(static_cast<int>(std::lround(width)), 16, 400);
}

void TimelineView::updateScrollBars() {
    const int lanes = laneWidth();
    horizontalScrollBar()->setRange(0, std::max(0, contentWidth() - lanes));
    horizontalScrollBar()->setPageStep(lanes);
    horizontalScrollBar()->setSingleStep(40);
    const int visibleHeight = viewport()->height();
    verticalScrollBar()->setRange(0, std::max(0, contentHeight() - visibleHeight));
    verticalScrollBar()->setPageStep(visibleHeight);
    verticalScrollBar()->setSingleStep(20);
}

int TimelineView::fittingZoomLevel() const {
    const int64_t duration = std::max<int64_t>(model_ != nullptr ? model_->duration : 0, kSecond);
    const int lanes = laneWidth() - 40;
    int level = 0;
    for (size_t i = 0; i < zoomLevels().size(); ++i)
        if (duration / (kSecond / zoomLevels()[i]) <= lanes) level = static_cast<int>(i);
    return level;
}

void TimelineView::zoomToFit() {
    setZoomLevel(fittingZoomLevel(), kHeader);
    scrollToX(0);
}

void TimelineView::setZoomLevel(int level, int anchorX) {
    level = std::clamp(level, 0, static_cast<int>(zoomLevels().size()) - 1);
    if (anchorX < 0) anchorX = kHeader + laneWidth() / 2;
    const int64_t anchorTime = (scrollX() + (anchorX - kHeader)) * cnsPerPixel();
    zoomLevel_ = level;
    updateScrollBars();
    scrollToX(static_cast<int>(contentXOf(anchorTime)) - (anchorX - kHeader));
    scheduleRequests();
    viewport()->update();
    emit viewChanged();
}

QRect TimelineView::clipRect(const ClipInfo& clip) const {
    const int x0 = kHeader + static_cast<int>(contentXOf(clip.begin) - scrollX());
    const int x1 = std::max(kHeader + static_cast<int>(contentXOf(clip.end) - scrollX()), x0 + 1);
    const int top = laneTop(static_cast<size_t>(clip.track)) - verticalScrollBar()->value();
    return {x0, top, x1 - x0, laneHeight(static_cast<size_t>(clip.track))};
}

QRect TimelineView::stripRect(const ClipInfo& clip) const {
    if (!clip.video) return {};
    const QRect frame = clipRect(clip);
    return {frame.left() + 1, frame.top() + kInset, std::max(frame.width() - 2, 0), kStripHeight};
}

QRect TimelineView::waveRect(const ClipInfo& clip) const {
    if (clip.audio == nullptr) return {};
    const QRect frame = clipRect(clip);
    const bool video = model_ != nullptr && model_->tracks[static_cast<size_t>(clip.track)].video;
    const int top = video ? frame.top() + kInset + kStripHeight + 2 : frame.top() + kInset + kNameBar;
    return {frame.left() + 1, top, std::max(frame.width() - 2, 0), video ? kVideoWaveHeight : kAudioWaveHeight};
}

std::vector<TimelineView::Slot> TimelineView::visibleSlots(const ClipInfo& clip, int firstX, int lastX) const {
    std::vector<Slot> found;
    if (!clip.video) return found;
    const int64_t x0 = contentXOf(clip.begin);
    const int64_t x1 = std::max(contentXOf(clip.end), x0 + 1);
    const int width = thumbWidth(clip);
    const int64_t count = ceilDiv(x1 - x0, width);
    const int64_t first = std::max<int64_t>(0, floorDiv(firstX - x0, width));
    const int64_t last = std::min<int64_t>(count - 1, floorDiv(lastX - 1 - x0, width));
    for (int64_t k = first; k <= last; ++k) {
        // What plays at the slot's left edge, as the clip plays its media
        // (frozen stretches hold, reversed clips run backwards).
        const int64_t clipTime = clip.markIn + k * width * cnsPerPixel();
        int64_t media = std::max<int64_t>(ZOR::mediaTimeOfClip(clip.clip, clipTime), 0);
        media -= media % kPictureQuantum;
        const int64_t left = x0 + k * width;
        found.push_back(Slot{static_cast<int>(left), static_cast<int>(std::min<int64_t>(width, x1 - left)), media});
    }
    return found;
}

std::optional<AudioAsk> TimelineView::audioAskFor(const ClipInfo& clip, int firstX, int lastX) const {
    if (clip.audio == nullptr) return std::nullopt;
    const int64_t cpp = cnsPerPixel();
    // Columns whose left edge lies inside the clip: one point each.
    const int64_t c0 = std::max<int64_t>(firstX, ceilDiv(clip.begin, cpp));
    const int64_t c1 = std::min<int64_t>(lastX, floorDiv(clip.end, cpp));
    if (c1 <= c0) return std::nullopt;
    AudioAsk ask;
    ask.begin = clip.markIn + c0 * cpp - clip.begin;
    ask.end = clip.markIn + c1 * cpp - clip.begin;
    ask.count = static_cast<uint32_t>(c1 - c0);
    return ask;
}

std::vector<const ClipInfo*> TimelineView::visibleClips() const {
    std::vector<const ClipInfo*> clips;
    if (model_ == nullptr) return clips;
    const int64_t first = scrollX();
    const int64_t last = first + laneWidth();
    const int top = verticalScrollBar()->value();
    const int bottom = top + viewport()->height();
    for (size_t t = 0; t < model_->tracks.size(); ++t) {
        if (laneTop(t) + laneHeight(t) <= top + kRuler || laneTop(t) >= bottom) continue;
        for (const ClipInfo& clip : model_->tracks[t].clips) {
            const int64_t x0 = contentXOf(clip.begin);
            const int64_t x1 = std::max(contentXOf(clip.end), x0 + 1);
            if (x1 > first && x0 < last) clips.push_back(&clip);
        }
    }
    return clips;
}

const ClipInfo* TimelineView::clipAt(const QPoint& point) const {
    for (const ClipInfo* clip : visibleClips())
        if (clipRect(*clip).contains(point)) return clip;
    return nullptr;
}

// ---------------------------------------------------------------------------
// Asking

void TimelineView::scheduleRequests() {
    if (requestsScheduled_) return;
    requestsScheduled_ = true;
    QTimer::singleShot(0, this, [this] {
        requestsScheduled_ = false;
        updateRequests();
    });
}

void TimelineView::updateRequests() {
    if (document_ == nullptr || model_ == nullptr) return;
    ++updates_;
    const int first = scrollX();
    const int last = first + laneWidth();
    std::set<ZOR::IDmClip*> inViewAudio;
    std::set<ZOR::IDmClip*> inViewVideo;
    for (const ClipInfo* clip : visibleClips()) {
        if (clip->video) {
            inViewVideo.insert(clip->clip);
            VideoState& state = video_[clip->clip];
            state.lastSeen = updates_;
            std::vector<int64_t> missing;
            for (const Slot& slot : visibleSlots(*clip, first, last))
                if (state.pictures.find(slot.time) == state.pictures.end()) missing.push_back(slot.time);
            std::sort(missing.begin(), missing.end());
            missing.erase(std::unique(missing.begin(), missing.end()), missing.end());
            if (missing.empty()) {
                // Everything in view is here: whatever is still being made
                // for this clip is no longer needed.
                if (state.asked) document_->cancelVideo(clip->clip);
                state.asked.reset();
            } else {
                // One ask names every missing picture in view: an ask replaces
                // the clip's outstanding one.
                VideoAsk ask{thumbWidth(*clip), kStripHeight, std::move(missing)};
                if (!state.asked || !(*state.asked == ask)) {
                    document_->askVideo(clip->clip, ask);
                    state.asked = std::move(ask);
                }
            }
        }
        if (const std::optional<AudioAsk> ask = audioAskFor(*clip, first, last)) {
            inViewAudio.insert(clip->audio);
            AudioState& state = audio_[clip->audio];
            if (!state.asked || !(*state.asked == *ask) || state.stale) {
                document_->askAudio(clip->audio, *ask);
                state.asked = ask;
                state.stale = false;
                state.current = false;
                ++state.asks;
            }
        }
    }
    for (auto& [clip, state] : audio_) {
        if (state.asked && inViewAudio.count(clip) == 0) {
            document_->cancelAudio(clip);
            state.asked.reset();
            state.current = false;
        }
    }
    for (auto& [clip, state] : video_) {
        if (state.asked && inViewVideo.count(clip) == 0) {
            document_->cancelVideo(clip);
            state.asked.reset();
        }
    }
    evictPictures();
}

void TimelineView::evictPictures() {
    size_t total = 0;
    for (const auto& [clip, state] : video_) total += state.pictures.size();
    while (total > kPictureBudget) {
        VideoState* oldest = nullptr;
        for (auto& [clip, state] : video_)
            if (state.lastSeen < updates_ && !state.pictures.empty() &&
                (oldest == nullptr || state.lastSeen < oldest->lastSeen))
                oldest = &state;
        if (oldest == nullptr) return;  // everything left is in view
        total -= oldest->pictures.size();
        oldest->pictures.clear();
    }
}

// ---------------------------------------------------------------------------
// What is drawn

std::optional<TimelineView::WaveColumns> TimelineView::waveColumns(const ClipInfo& clip) const {
    if (clip.audio == nullptr) return std::nullopt;
    auto found = audio_.find(clip.audio);
    if (found == audio_.end() || found->second.values == nullptr || !found->second.asked) return std::nullopt;
    const AudioState& state = found->second;
    WaveColumns columns;
    const int64_t cpp = cnsPerPixel();
    const int64_t firstColumn = (state.begin - clip.markIn + clip.begin) / cpp;
    columns.first = kHeader + static_cast<int>(firstColumn - scrollX());
    columns.values = *state.values;
    columns.current = state.current;
    columns.muted = clip.mute;
    return columns;
}

bool TimelineView::settled() const {
    if (model_ == nullptr) return false;
    const int first = scrollX();
    const int last = first + laneWidth();
    for (const ClipInfo* clip : visibleClips()) {
        if (audioAskFor(*clip, first, last)) {
            auto found = audio_.find(clip->audio);
            if (found == audio_.end() || !found->second.current) return false;
        }
        if (clip->video) {
            auto found = video_.find(clip->clip);
            for (const Slot& slot : visibleSlots(*clip, first, last))
                if (found == video_.end() || found->second.pictures.count(slot.time) == 0) return false;
        }
    }
    return true;
}

int TimelineView::audioDeliveries(const ZOR::IDmClip* audioClip) const {
    auto found = audio_.find(const_cast<ZOR::IDmClip*>(audioClip));
    return found != audio_.end() ? found->second.deliveries : 0;
}

int TimelineView::audioAsks(const ZOR::IDmClip* audioClip) const {
    auto found = audio_.find(const_cast<ZOR::IDmClip*>(audioClip));
    return found != audio_.end() ? found->second.asks : 0;
}

int TimelineView::pictureDeliveries(const ZOR::IDmClip* clip) const {
    auto found = video_.find(const_cast<ZOR::IDmClip*>(clip));
    return found != video_.end() ? found->second.deliveries : 0;
}

// ---------------------------------------------------------------------------
// Painting: only what is kept here is drawn; nothing is decoded or read.

void TimelineView::drawRuler(QPainter& painter) {
    const int width = viewport()->width();
    painter.fillRect(QRect(0, 0, width, kRuler), kRulerFill);
    if (model_ == nullptr) return;
    const int pps = pixelsPerSecond();
    int64_t step = 1;
    for (int64_t candidate : {1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 1800, 3600}) {
        step = candidate;
        if (candidate * pps >= 70) break;
    }
    painter.setPen(kRulerTicks);
    QFont font = painter.font();
    font.setPixelSize(10);
    painter.setFont(font);
    const int64_t firstSecond = scrollX() / pps / step * step;
    const int64_t lastSecond = (scrollX() + laneWidth()) / pps + step;
    for (int64_t second = firstSecond; second <= lastSecond; second += step) {
        const int x = kHeader + static_cast<int>(second * pps - scrollX());
        if (x < kHeader) continue;
        painter.drawLine(x, kRuler - 9, x, kRuler - 1);
        painter.drawText(x + 3, kRuler - 10, timeText(second));
        for (int minor = 1; minor < 5; ++minor) {
            const int mx = x + static_cast<int>(step * pps * minor / 5);
            painter.drawLine(mx, kRuler - 4, mx, kRuler - 1);
        }
    }
}

void TimelineView::drawClip(QPainter& painter, const TrackInfo& track, const ClipInfo& clip) {
    const QRect frame = clipRect(clip);
    const QRect lanes(kHeader, kRuler, laneWidth(), viewport()->height() - kRuler);
    const QRect visible = frame.intersected(lanes);
    if (visible.isEmpty()) return;
    painter.save();
    painter.setClipRect(visible);
    painter.fillRect(frame, track.video ? kVideoBody : kAudioBody);
    const int first = scrollX();
    const int last = first + laneWidth();

    if (clip.video) {
        const QRect strip = stripRect(clip);
        auto found = video_.find(clip.clip);
        painter.setClipRect(strip.intersected(visible));
        for (const Slot& slot : visibleSlots(clip, first, last)) {
            const int x = kHeader + slot.contentX - first;
            const QRect box(x, strip.top(), slot.width, kStripHeight);
            const QImage* image = nullptr;
            if (found != video_.end()) {
                auto picture = found->second.pictures.find(slot.time);
                if (picture != found->second.pictures.end()) image = &picture->second;
            }
            if (image != nullptr) {
                painter.drawImage(QPoint(x, strip.top()), *image);
                if (!firstPicture_) firstPicture_ = std::chrono::steady_clock::now();
            } else {
                painter.fillRect(box, placeholderColour());
            }
        }
        painter.setClipRect(visible);
    }

    if (clip.audio != nullptr) {
        const QRect wave = waveRect(clip);
        auto found = audio_.find(clip.audio);
        if (found != audio_.end() && found->second.values != nullptr && found->second.end > found->second.begin) {
            const AudioState& state = found->second;
            const std::vector<float>& values = *state.values;
            const int64_t cpp = cnsPerPixel();
            const int64_t span = state.end - state.begin;
            const auto count = static_cast<int64_t>(values.size());
            const int64_t c0 = std::max<int64_t>(first, ceilDiv(clip.begin, cpp));
            const int64_t c1 = std::min<int64_t>(last, floorDiv(clip.end, cpp));
            if (c1 > c0) {
                // The columns are written straight into a picture of the
                // clip's waveform band, then drawn at once.
                QImage band(static_cast<int>(c1 - c0), wave.height(), QImage::Format_ARGB32_Premultiplied);
                band.fill(Qt::transparent);
                const QRgb colour = (clip.mute ? mutedWaveColour() : waveColour()).rgba();
                const int middle = wave.height() / 2;
                const double half = wave.height() / 2.0;
                bool drawn = false;
                for (int64_t column = c0; column < c1; ++column) {
                    // The value whose point lies in this column, wherever the
                    // values were asked for: a waveform of another zoom or
                    // scroll is drawn until the one for this view arrives.
                    const int64_t clipTime = clip.markIn + column * cpp - clip.begin;
                    if (clipTime < state.begin || clipTime >= state.end) continue;
                    const int64_t index = (clipTime - state.begin) * count / span;
                    if (index < 0 || index >= count) continue;
                    const double value = std::clamp(static_cast<double>(values[static_cast<size_t>(index)]), 0.0, 1.0);
                    const int reach = static_cast<int>(std::lround(value * (half - 1.0)));
                    const int x = static_cast<int>(column - c0);
                    for (int y = middle - reach; y <= middle + reach; ++y)
                        reinterpret_cast<QRgb*>(band.scanLine(y))[x] = colour;
                    drawn = true;
                }
                painter.drawImage(QPoint(kHeader + static_cast<int>(c0 - first), wave.top()), band);
                if (drawn && !firstWave_) firstWave_ = std::chrono::steady_clock::now();
            }
        }
    }

    // Name (where there is room for it), frame, selection.
    const QString name = frame.width() >= 40 ? QString::fromStdString(clip.name) : QString();
    if (!name.isEmpty() && track.video) {
        const QRect tab(frame.left() + 3, frame.top() + kInset + 2, painter.fontMetrics().horizontalAdvance(name) + 6,
                        13);
        painter.fillRect(tab, QColor(0, 0, 0, 150));
        painter.setPen(kText);
        painter.drawText(tab.adjusted(3, 0, 0, 0), Qt::AlignVCenter | Qt::AlignLeft, name);
    } else if (!name.isEmpty()) {
        painter.setPen(kText);
        painter.drawText(QRect(frame.left() + 4, frame.top() + kInset, frame.width() - 6, kNameBar),
                         Qt::AlignVCenter | Qt::AlignLeft, name);
    }
    const bool selected = clip.clip == selected_;
    painter.setPen(QPen(selected ? kSelected : (track.video ? kVideoEdge : kAudioEdge), 1));
    painter.setBrush(Qt::NoBrush);
    painter.drawRect(frame.adjusted(0, 0, -1, -1));
    if (selected) painter.drawRect(frame.adjusted(1, 1, -2, -2));
    if (!clip.enabled) painter.fillRect(frame, QColor(0, 0, 0, 120));
    painter.restore();
}

void TimelineView::paintEvent(QPaintEvent* event) {
    QPainter painter(viewport());
    painter.fillRect(event->rect(), backgroundColour());
    drawRuler(painter);
    if (model_ == nullptr) {
        painter.setPen(kText);
        painter.drawText(viewport()->rect(), Qt::AlignCenter,
                         document_ != nullptr ? tr("Opening %1…").arg(QString::fromStdString(document_->path()))
                                              : tr("No document"));
        return;
    }
    const int scrollY = verticalScrollBar()->value();
    painter.setClipRect(QRect(0, kRuler, viewport()->width(), viewport()->height() - kRuler));
    QFont font = painter.font();
    font.setPixelSize(10);
    painter.setFont(font);
    for (size_t t = 0; t < model_->tracks.size(); ++t) {
        const TrackInfo& track = model_->tracks[t];
        const int top = laneTop(t) - scrollY;
        const int height = laneHeight(t);
        if (top + height <= kRuler || top >= viewport()->height()) continue;
        painter.fillRect(QRect(kHeader, top, viewport()->width() - kHeader, height), kLane);
        const int64_t first = scrollX();
        const int64_t last = first + laneWidth();
        for (const ClipInfo& clip : track.clips) {
            const int64_t x0 = contentXOf(clip.begin);
            const int64_t x1 = std::max(contentXOf(clip.end), x0 + 1);
            if (x1 <= first || x0 >= last) continue;
            if (!clipRect(clip).intersects(event->rect())) continue;  // outside what is repainted
            drawClip(painter, track, clip);
        }
        painter.fillRect(QRect(0, top, kHeader, height), kHeaderFill);
        painter.setPen(kText);
        QString label = QString::fromStdString(track.name);
        if (track.mute) label += tr(" (muted)");
        painter.drawText(QRect(8, top, kHeader - 12, height), Qt::AlignVCenter | Qt::AlignLeft, label);
    }
}

void TimelineView::resizeEvent(QResizeEvent* event) {
    QAbstractScrollArea::resizeEvent(event);
    updateScrollBars();
    scheduleRequests();
}

void TimelineView::scrollContentsBy(int /*dx*/, int /*dy*/) {
    scheduleRequests();
    viewport()->update();
    emit viewChanged();
}

void TimelineView::wheelEvent(QWheelEvent* event) {
    const QPoint delta = event->angleDelta();
    if (event->modifiers() & Qt::ControlModifier) {
        const int anchor = static_cast<int>(event->position().x());
        if (delta.y() > 0) zoomIn(anchor);
        if (delta.y() < 0) zoomOut(anchor);
    } else {
        const int steps = delta.x() != 0 ? delta.x() : delta.y();
        scrollToX(scrollX() - steps);
    }
    event->accept();
}

void TimelineView::mousePressEvent(QMouseEvent* event) {
    const ClipInfo* clip = clipAt(event->position().toPoint());
    selectClip(clip != nullptr ? clip->clip : nullptr);
}

void TimelineView::selectClip(ZOR::IDmClip* clip) {
    if (clip == selected_) return;
    selected_ = clip;
    viewport()->update();
    emit clipSelected(clip);
}

void TimelineView::keyPressEvent(QKeyEvent* event) {
    switch (event->key()) {
        case Qt::Key_Plus:
        case Qt::Key_Equal:
            zoomIn();
            break;
        case Qt::Key_Minus:
        case Qt::Key_Underscore:
            zoomOut();
            break;
        case Qt::Key_0:
            zoomToFit();
            break;
        case Qt::Key_Home:
            scrollToX(0);
            break;
        case Qt::Key_End:
            scrollToX(horizontalScrollBar()->maximum());
            break;
        default:
            QAbstractScrollArea::keyPressEvent(event);
            return;
    }
    event->accept();
}

}  // namespace miravel::view
