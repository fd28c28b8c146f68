#include "Tour.h"

#include <algorithm>
#include <memory>

#include "MainWindow.h"
#include "TimelineView.h"

namespace miravel::view {

Tour::Tour(MainWindow& window, QObject* parent) : QObject(parent), window_(window) {
    timer_.setInterval(16);
    connect(&timer_, &QTimer::timeout, this, &Tour::tick);
    connect(&window_, &MainWindow::editDone, this, [this] { --pendingEdits_; });
    connect(&window_, &MainWindow::documentFailed, this, [this] {
        if (window_.current() != nullptr && !window_.current()->isLoaded()) failed_ = true;
    });
}

void Tour::start() {
    started_ = std::chrono::steady_clock::now();
    plan();
    timer_.start();
}

std::optional<std::chrono::milliseconds> Tour::duration() const {
    if (!ended_) return std::nullopt;
    return std::chrono::duration_cast<std::chrono::milliseconds>(*ended_ - started_);
}

void Tour::wait(int ticks) {
    auto left = std::make_shared<int>(ticks);
    steps_.push_back([left] { return --*left <= 0; });
}

void Tour::plan() {
    TimelineView& view = *window_.timeline();
    // The document, drawn at first sight.
    steps_.push_back([this] {
        if (failed_) return true;
        return window_.current() != nullptr && window_.current()->isLoaded();
    });
    steps_.push_back([this, &view] {
        if (failed_) return true;
        view.zoomToFit();
        return true;
    });
    wait(30);
    // Closer, step by step, at the start.
    auto target = std::make_shared<int>(0);
    steps_.push_back([&view, target] {
        *target = std::min(view.fittingZoomLevel() + 10, static_cast<int>(TimelineView::zoomLevels().size()) - 1);
        return true;
    });
    steps_.push_back([&view, target] {
        if (view.zoomLevel() >= *target) return true;
        view.zoomIn(TimelineView::kHeader);
        return false;
    });
    // Across all of it.
    steps_.push_back([&view] {
        const int end = view.contentWidth() - view.laneWidth();
        if (view.scrollX() >= end) return true;
        view.scrollToX(std::min(end, view.scrollX() + std::max(8, view.laneWidth() / 8)));
        return false;
    });
    wait(10);
    // Back out to the whole timeline, anchored at the right.
    steps_.push_back([&view] {
        if (view.zoomLevel() <= view.fittingZoomLevel()) return true;
        view.zoomOut(TimelineView::kHeader + view.laneWidth());
        return false;
    });
    steps_.push_back([&view] {
        view.zoomToFit();
        return true;
    });
    wait(10);
    // Edits of clips spread over the timeline.
    auto edited = std::make_shared<std::vector<ZOR::IDmClip*>>();
    steps_.push_back([&view, edited] {
        const TimelineModel* model = view.model();
        if (model == nullptr) return true;
        std::vector<const ClipInfo*> sound;
        for (const TrackInfo& track : model->tracks)
            for (const ClipInfo& clip : track.clips)
                if (clip.audio != nullptr) sound.push_back(&clip);
        std::sort(sound.begin(), sound.end(), [](const ClipInfo* a, const ClipInfo* b) { return a->begin < b->begin; });
        const size_t wanted = std::min<size_t>(6, sound.size());
        for (size_t i = 0; i < wanted; ++i) edited->push_back(sound[i * sound.size() / wanted]->clip);
        return true;
    });
    for (int i = 0; i < 6; ++i) {
        steps_.push_back([this, &view, edited, i] {
            if (static_cast<size_t>(i) >= edited->size()) return true;
            view.selectClip((*edited)[static_cast<size_t>(i)]);
            ++pendingEdits_;
            window_.setSelectedVolume(-6.0 - 2.0 * i);
            return true;
        });
        wait(4);
        steps_.push_back([this, edited, i] {
            if (static_cast<size_t>(i) >= edited->size()) return true;
            ++pendingEdits_;
            window_.setSelectedMute(i % 2 == 0);
            return true;
        });
        wait(4);
    }
    steps_.push_back([this] {
        ++pendingEdits_;
        window_.undo();
        return true;
    });
    wait(4);
    steps_.push_back([this] {
        ++pendingEdits_;
        window_.undo();
        return true;
    });
    wait(4);
    steps_.push_back([this] {
        ++pendingEdits_;
        window_.redo();
        return true;
    });
    // Everything answered and drawn, within a limit.
    steps_.push_back([this] { return pendingEdits_ <= 0; });
    auto deadline = std::make_shared<std::optional<std::chrono::steady_clock::time_point>>();
    steps_.push_back([&view, deadline] {
        if (!*deadline) *deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        return view.settled() || std::chrono::steady_clock::now() >= **deadline;
    });
}

void Tour::tick() {
    if (!failed_ && current_ < steps_.size()) {
        if (steps_[current_]()) ++current_;
        if (!failed_ && current_ < steps_.size()) return;
    }
    timer_.stop();
    ended_ = std::chrono::steady_clock::now();
    emit finished();
}

}  // namespace miravel::view
