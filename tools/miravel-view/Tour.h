// A scripted tour of the open document, so that measurements repeat: it
// waits for the document, zooms in from the whole timeline, scrolls across
// all of it, zooms back out, edits the volume and mute of clips spread over
// the timeline (with an undo and a redo), and ends once everything in view is
// drawn (or after a limit). One step per tick of a 16 ms timer.
#pragma once

#include <QObject>
#include <QTimer>

#include <chrono>
#include <functional>
#include <optional>
#include <vector>

namespace ZOR {
class IDmClip;
}

namespace miravel::view {

class MainWindow;

class Tour : public QObject {
    Q_OBJECT

public:
    explicit Tour(MainWindow& window, QObject* parent = nullptr);
    void start();
    // From start() to the end of the last step.
    std::optional<std::chrono::milliseconds> duration() const;
    bool failed() const { return failed_; }

signals:
    void finished();

private:
    using Step = std::function<bool()>;  // true: done, go on with the next
    void tick();
    void plan();
    void wait(int ticks);

    MainWindow& window_;
    QTimer timer_;
    std::vector<Step> steps_;
    size_t current_ = 0;
    int pendingEdits_ = 0;
    bool failed_ = false;
    std::chrono::steady_clock::time_point started_;
    std::optional<std::chrono::steady_clock::time_point> ended_;
};

}  // namespace miravel::view
