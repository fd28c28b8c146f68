// The media thumbnails of the document's media files, through the media
// thumbnail manager.
//
// The manager and every file access (probing the media, finding the picture
// under the pointer, loading its PNG file) live on this object's own thread:
// the UI thread only leaves wishes (the media list, where the pointer is)
// and receives loaded pictures by queued calls. The manager's worker renders
// pictures coarse to fine and tells of each file it writes (on its own
// thread, with its lock held); that only wakes this thread, which then
// shows the nearest picture on disk again, so that what is shown gets finer
// as pictures are made.
#pragma once

#include <QImage>
#include <QObject>
#include <QString>
#include <QVector>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace miravel::view {

struct MediaEntry {
    QString path;
    QString name;
    bool video = false;
    qint64 duration = 0;  // cns
};

class MediaThumbs : public QObject {
    Q_OBJECT

public:
    struct Options {
        std::string cacheRoot;
        int boxWidth = 160;
        int boxHeight = 90;
        int count = 100;  // pictures per media file
    };

    explicit MediaThumbs(Options options, QObject* parent = nullptr);
    // Stops the thread (releasing the manager, which joins its worker) and
    // joins it.
    ~MediaThumbs() override;
    MediaThumbs(const MediaThumbs&) = delete;
    MediaThumbs& operator=(const MediaThumbs&) = delete;

    const Options& options() const { return options_; }

    // Wishes of the UI thread; each returns at once.
    void setMedia(const std::vector<std::string>& files);
    void hover(int index, double position);  // position 0..1 across the file
    void leave(int index);

signals:
    void mediaListed(const QVector<miravel::view::MediaEntry>& entries);
    // What media index shows now: its picture frameIndex of count, and
    // whether it is the picture under the pointer (else the still one).
    void pictureShown(int index, const QImage& image, int frameIndex, bool hovering);

private:
    class Callback;
    struct Item;

    void run();
    void listMedia(const std::vector<std::string>& files);
    void changed(const char* rootDir);

    const Options options_;

    // Lock order: the manager's lock, then lock_ (taken inside the manager's
    // callback); lock_ is a leaf, never held while calling the manager.
    std::mutex lock_;                 // guards the wishes below
    std::condition_variable signal_;  // waits for stop_ or a wish
    std::atomic<bool> stop_{false};   // set under lock_
    std::optional<std::vector<std::string>> newMedia_;
    std::map<int, std::optional<double>> hovers_;  // nullopt: the pointer left
    std::set<std::string> changedRoots_;

    std::vector<Item> items_;  // this object's thread only
    std::thread thread_;
};

}  // namespace miravel::view

Q_DECLARE_METATYPE(miravel::view::MediaEntry)
