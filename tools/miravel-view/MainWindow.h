// The viewer's window: the timeline above, the media bin and the selected
// clip's inspector below, the document's commands in the menus.
//
// It owns the open document and the media thumbnails. Closing a document
// detaches the views from it and returns at once; the document
// finishes on its own thread and is deleted (and joined) when it says so, or
// by shutDown() when the program ends.
#pragma once

#include <QMainWindow>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "OpenDocument.h"

class QAction;
class QLabel;
class QScrollArea;

namespace miravel::view {

class ClipInspector;
class MediaBin;
class MediaThumbs;
class TimelineView;

class MainWindow : public QMainWindow {
    Q_OBJECT

public:
    struct Options {
        std::string cacheRoot;
        int mediaThumbCount = 100;
    };

    explicit MainWindow(Options options, QWidget* parent = nullptr);
    ~MainWindow() override;

    // Opens a timeline document; an empty path opens the demo's document
    // (made under the cache root on first use). Any open document is closed.
    void openDocument(const std::string& path);
    // Returns at once; the document's thread finishes on its own.
    void closeDocument();
    // Closes everything and joins every thread of the viewer.
    void shutDown();

    OpenDocument* current() const { return current_; }
    TimelineView* timeline() const { return timeline_; }
    MediaBin* mediaBin() const { return bin_; }
    ClipInspector* inspector() const { return inspector_; }
    // Documents closed whose threads have not finished yet.
    size_t closingDocuments() const { return closing_.size(); }
    // When the document was asked to open.
    std::optional<std::chrono::steady_clock::time_point> openedAt() const { return openedAt_; }

    // The document commands, as the menus run them.
    void editSelected(const QString& what, OpenDocument::Edit edit);
    void setSelectedVolume(double db);
    void setSelectedMute(bool mute);
    void setSelectedDucking(bool enabled, double depth);
    void setSelectedReverse(bool reverse);
    void undo();
    void redo();
    void save();
    void saveAs(const QString& path);

signals:
    void documentLoaded();
    void documentFailed(const QString& message);
    void documentSaved(const QString& path, const QString& error);
    void editDone(const QString& what, int result);

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    void buildMenus();
    void showSelection();
    const ClipInfo* selectedClip() const;
    void retire(OpenDocument* opened);

    const Options options_;
    TimelineView* timeline_;
    MediaBin* bin_;
    QScrollArea* binArea_;
    ClipInspector* inspector_;
    QLabel* status_;
    MediaThumbs* thumbs_;
    OpenDocument* current_ = nullptr;
    std::vector<OpenDocument*> closing_;
    std::optional<std::chrono::steady_clock::time_point> openedAt_;
    QString savePath_;
};

}  // namespace miravel::view
