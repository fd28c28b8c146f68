#include "MainWindow.h"

#include <QAction>
#include <QCloseEvent>
#include <QFileDialog>
#include <QLabel>
#include <QMenuBar>
#include <QScrollArea>
#include <QSplitter>
#include <QStatusBar>

#include <algorithm>
#include <filesystem>

#include "Adapter/Adapter.h"
#include "ClipInspector.h"
#include "DataModel/DmEdit.h"
#include "DataModel/DmMedia.h"
#include "MediaBin.h"
#include "MediaThumbs.h"
#include "Paths.h"
#include "TimelineView.h"
#include "ZorUtils/ZorUtils.h"

namespace miravel::view {

MainWindow::MainWindow(Options options, QWidget* parent) : QMainWindow(parent), options_(std::move(options)) {
    setWindowTitle(tr("miravel-view"));
    // Decoded frames are kept under the same cache root as the rest.
    ZOR::setFrameStoreRoot((std::filesystem::path(options_.cacheRoot) / "frames").string().c_str());
    timeline_ = new TimelineView(this);
    bin_ = new MediaBin(this);
    binArea_ = new QScrollArea(this);
    binArea_->setWidget(bin_);
    binArea_->setWidgetResizable(true);
    inspector_ = new ClipInspector(this);
    MediaThumbs::Options thumbOptions;
    thumbOptions.cacheRoot = options_.cacheRoot;
    thumbOptions.count = options_.mediaThumbCount;
    thumbs_ = new MediaThumbs(thumbOptions, this);
    bin_->setThumbs(thumbs_);

    auto* lower = new QSplitter(Qt::Horizontal, this);
    lower->addWidget(binArea_);
    lower->addWidget(inspector_);
    lower->setStretchFactor(0, 3);
    lower->setStretchFactor(1, 1);
    auto* split = new QSplitter(Qt::Vertical, this);
    split->addWidget(timeline_);
    split->addWidget(lower);
    split->setStretchFactor(0, 3);
    split->setStretchFactor(1, 1);
    setCentralWidget(split);
    status_ = new QLabel(this);
    statusBar()->addWidget(status_, 1);
    buildMenus();

    connect(timeline_, &TimelineView::clipSelected, this, [this] { showSelection(); });
    connect(inspector_, &ClipInspector::volumeEdited, this, &MainWindow::setSelectedVolume);
    connect(inspector_, &ClipInspector::muteEdited, this, &MainWindow::setSelectedMute);
    connect(inspector_, &ClipInspector::duckingEdited, this, &MainWindow::setSelectedDucking);
    connect(inspector_, &ClipInspector::reverseEdited, this, &MainWindow::setSelectedReverse);
    resize(1280, 760);
}

MainWindow::~MainWindow() { shutDown(); }

void MainWindow::buildMenus() {
    QMenu* file = menuBar()->addMenu(tr("&File"));
    file->addAction(tr("&Open…"), QKeySequence::Open, this, [this] {
        const QString path = QFileDialog::getOpenFileName(this, tr("Open a timeline document"), QString(),
                                                          tr("Timeline documents (*.otio);;All files (*)"));
        if (!path.isEmpty()) openDocument(path.toStdString());
    });
    file->addAction(tr("Open the &demo"), this, [this] { openDocument(std::string()); });
    file->addAction(tr("&Save"), QKeySequence::Save, this, [this] { save(); });
    file->addAction(tr("Save &as…"), QKeySequence::SaveAs, this, [this] {
        const QString path = QFileDialog::getSaveFileName(this, tr("Save the timeline document"), savePath_,
                                                          tr("Timeline documents (*.otio)"));
        if (!path.isEmpty()) saveAs(path);
    });
    file->addAction(tr("&Close"), QKeySequence::Close, this, [this] { closeDocument(); });
    file->addSeparator();
    file->addAction(tr("&Quit"), QKeySequence::Quit, this, [this] { close(); });
    QMenu* edit = menuBar()->addMenu(tr("&Edit"));
    edit->addAction(tr("&Undo"), QKeySequence::Undo, this, [this] { undo(); });
    edit->addAction(tr("&Redo"), QKeySequence::Redo, this, [this] { redo(); });
    QMenu* view = menuBar()->addMenu(tr("&View"));
    view->addAction(tr("Zoom &in"), QKeySequence::ZoomIn, this, [this] { timeline_->zoomIn(); });
    view->addAction(tr("Zoom &out"), QKeySequence::ZoomOut, this, [this] { timeline_->zoomOut(); });
    view->addAction(tr("&Fit the timeline"), QKeySequence(Qt::CTRL | Qt::Key_0), this,
                    [this] { timeline_->zoomToFit(); });
}

// ---------------------------------------------------------------------------
// Documents

void MainWindow::openDocument(const std::string& path) {
    closeDocument();
    OpenDocument::Options options;
    options.demo = path.empty();
    options.demoFolder = demoFolder(options_.cacheRoot);
    options.document = path.empty() ? demoDocument(options_.cacheRoot) : path;
    savePath_ = QString::fromStdString(options.document);
    openedAt_ = std::chrono::steady_clock::now();
    current_ = new OpenDocument(options, this);
    OpenDocument* opened = current_;
    connect(opened, &OpenDocument::loaded, this, [this, opened] {
        if (opened != current_) return;
        const auto model = opened->model();
        setWindowTitle(tr("%1 — miravel-view").arg(QString::fromStdString(opened->path())));
        bin_->setMedia(model->mediaFiles());
        size_t clips = 0;
        for (const TrackInfo& track : model->tracks) clips += track.clips.size();
        status_->setText(tr("%1: %2 tracks, %3 clips")
                             .arg(QString::fromStdString(opened->path()))
                             .arg(model->tracks.size())
                             .arg(clips));
        emit documentLoaded();
    });
    connect(opened, &OpenDocument::failed, this, [this](const QString& message) {
        status_->setText(message);
        emit documentFailed(message);
    });
    connect(opened, &OpenDocument::edited, this, [this](const QString& what, int result) {
        status_->setText(result == 0 ? tr("%1: done").arg(what) : tr("%1: refused (%2)").arg(what).arg(result));
        showSelection();
        emit editDone(what, result);
    });
    connect(opened, &OpenDocument::saved, this, [this](const QString& where, const QString& error) {
        status_->setText(error.isEmpty() ? tr("Saved %1").arg(where) : error);
        emit documentSaved(where, error);
    });
    connect(opened, &OpenDocument::finished, this, [this, opened] {
        if (opened == current_) return;  // a document that failed to load stays until it is closed
        retire(opened);
    });
    timeline_->setDocument(opened);
    status_->setText(tr("Opening %1…").arg(QString::fromStdString(options.document)));
}

void MainWindow::closeDocument() {
    if (current_ == nullptr) return;
    OpenDocument* opened = current_;
    current_ = nullptr;
    // The views let go of the timeline first: its clips are only valid while
    // the document holds it.
    timeline_->setDocument(nullptr);
    inspector_->showClip(nullptr);
    bin_->setMedia({});
    opened->close();
    if (opened->isFinished())
        retire(opened);
    else
        closing_.push_back(opened);
    setWindowTitle(tr("miravel-view"));
}

void MainWindow::retire(OpenDocument* opened) {
    closing_.erase(std::remove(closing_.begin(), closing_.end(), opened), closing_.end());
    // Its thread has ended: deleting it joins at once.
    opened->deleteLater();
}

void MainWindow::shutDown() {
    closeDocument();
    for (OpenDocument* opened : closing_) delete opened;  // each joins its thread
    closing_.clear();
    if (thumbs_ != nullptr) {
        bin_->setThumbs(nullptr);
        delete thumbs_;
        thumbs_ = nullptr;
    }
}

void MainWindow::closeEvent(QCloseEvent* event) {
    closeDocument();
    event->accept();
}

// ---------------------------------------------------------------------------
// Edits

const ClipInfo* MainWindow::selectedClip() const {
    // The document's own copy is the newest: the view may not have taken it yet
    // when an edit's result is being shown.
    const TimelineModel* model = current_ != nullptr ? current_->model().get() : nullptr;
    return model != nullptr ? model->find(timeline_->selectedClip()) : nullptr;
}

void MainWindow::showSelection() { inspector_->showClip(selectedClip()); }

void MainWindow::editSelected(const QString& what, OpenDocument::Edit edit) {
    if (current_ == nullptr || !current_->isLoaded()) return;
    current_->edit(what, std::move(edit));
}

void MainWindow::setSelectedVolume(double db) {
    const ClipInfo* clip = selectedClip();
    if (clip == nullptr || clip->audio == nullptr) return;
    ZOR::IDmClip* audio = clip->audio;
    editSelected(tr("volume of %1").arg(QString::fromStdString(clip->name)), [audio, db](ZOR::IDmTimeline*) {
        return ZOR::setClipProperty(audio, ZOR::audioKey::volume, ZOR::doubleProperty(db));
    });
}

void MainWindow::setSelectedMute(bool mute) {
    const ClipInfo* clip = selectedClip();
    if (clip == nullptr || clip->audio == nullptr) return;
    ZOR::IDmClip* audio = clip->audio;
    editSelected(tr("mute of %1").arg(QString::fromStdString(clip->name)), [audio, mute](ZOR::IDmTimeline*) {
        return ZOR::setClipProperty(audio, ZOR::audioKey::mute, ZOR::boolProperty(mute));
    });
}

void MainWindow::setSelectedDucking(bool enabled, double depth) {
    const ClipInfo* clip = selectedClip();
    if (clip == nullptr || clip->audio == nullptr) return;
    ZOR::IDmClip* audio = clip->audio;
    ZOR::DmDuckingDesc ducking;
    ducking.present = true;
    ducking.enabled = enabled;
    ducking.depth = depth;
    ducking.fade = clip->duckingFade;
    ducking.fadeRatio = clip->duckingFadeRatio;
    editSelected(tr("ducking of %1").arg(QString::fromStdString(clip->name)),
                 [audio, ducking](ZOR::IDmTimeline*) { return ZOR::setClipDucking(audio, ducking); });
}

void MainWindow::setSelectedReverse(bool reverse) {
    const ClipInfo* clip = selectedClip();
    if (clip == nullptr || clip->audio == nullptr) return;
    ZOR::IDmClip* audio = clip->audio;
    editSelected(tr("reverse of %1").arg(QString::fromStdString(clip->name)),
                 [audio, reverse](ZOR::IDmTimeline*) { return ZOR::setClipReverse(audio, reverse); });
}

void MainWindow::undo() {
    if (current_ != nullptr && current_->isLoaded()) current_->undo();
}

void MainWindow::redo() {
    if (current_ != nullptr && current_->isLoaded()) current_->redo();
}

void MainWindow::save() { saveAs(savePath_); }

void MainWindow::saveAs(const QString& path) {
    if (current_ == nullptr || !current_->isLoaded() || path.isEmpty()) return;
    savePath_ = path;
    current_->save(path);
}

}  // namespace miravel::view
