// One open timeline document and the clip thumbnail service that draws it.
//
// Every call into Miravel and every edit of the data model is made on the
// document's own thread, never on the UI thread: the service's operations
// may wait for locks its workers hold while they compute (an audio query
// waits for the thumbnail of the same clip being computed), and the data
// model's edits wait for the event bus's thread. The UI thread only leaves
// wishes here (the latest per clip wins), under a lock held for a few
// assignments.
//
// Answers come back the other way. The service calls its clients on its
// workers' threads (audio data on the audio builder's worker, pictures on the
// frame task's threads, or on the document's thread while it asks when they
// are cached; stale notices on the event bus's thread); the callbacks here
// copy what they are given into an inbox and post one queued call to the UI
// thread, which drains the inbox and emits the signals below. The UI thread
// therefore never runs library code, and the library's threads never wait
// for the UI.
//
// Closing returns at once: the document's thread cancels what it asked for,
// releases the service (which stops and joins its workers) and the timeline,
// then reports finished(); its owner joins it then (or at exit).
#pragma once

#include <QImage>
#include <QObject>
#include <QString>
#include <QVector>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "DataModel/DataModel.h"
#include "TimelineModel.h"

namespace ZOR {
class IBsClipThumbnailService;
}

namespace miravel::view {

struct AudioAsk {
    int64_t begin = 0;  // clip time, cns
    int64_t end = 0;
    uint32_t count = 0;
    bool operator==(const AudioAsk& other) const {
        return begin == other.begin && end == other.end && count == other.count;
    }
};

struct VideoAsk {
    int32_t width = 0;
    int32_t height = 0;
    std::vector<int64_t> times;  // media times, cns, ascending
    bool operator==(const VideoAsk& other) const {
        return width == other.width && height == other.height && times == other.times;
    }
};

struct Picture {
    int64_t time = 0;  // the media time asked for
    QImage image;      // premultiplied ARGB32, ready to draw
};

class OpenDocument : public QObject {
    Q_OBJECT

public:
    // document: a timeline document; with demo set, the demo's document is
    // made first in demoFolder when it is missing.
    struct Options {
        std::string document;
        bool demo = false;
        std::string demoFolder;
    };

    explicit OpenDocument(Options options, QObject* parent = nullptr);
    // Stops the document's thread (if close() was not called) and joins it.
    ~OpenDocument() override;
    OpenDocument(const OpenDocument&) = delete;
    OpenDocument& operator=(const OpenDocument&) = delete;

    const std::string& path() const { return options_.document; }
    // Set once loaded() was emitted; the timeline lives until finished().
    std::shared_ptr<const TimelineModel> model() const { return model_; }
    bool isLoaded() const { return model_ != nullptr; }
    bool isFinished() const { return finished_; }

    // Wishes of the UI thread; each returns at once. The latest wish of a
    // clip replaces any earlier one not yet sent.
    void askAudio(ZOR::IDmClip* audioClip, const AudioAsk& ask);
    void cancelAudio(ZOR::IDmClip* audioClip);
    void askVideo(ZOR::IDmClip* clip, const VideoAsk& ask);
    void cancelVideo(ZOR::IDmClip* clip);

    // An edit of the data model, run on the event bus's thread (as every
    // edit is) from the document's thread; edited() tells the result.
    using Edit = std::function<int32_t(ZOR::IDmTimeline*)>;
    void edit(const QString& what, Edit edit);
    void undo();
    void redo();
    // Writes the document to path (atomically); saved() tells the outcome.
    void save(const QString& path);

    // Returns at once; finished() follows when the document's thread is done.
    void close();

    // Counters for tests and measurements (UI thread).
    int64_t audioAsksSent() const { return audioAsksSent_.load(); }
    int64_t videoAsksSent() const { return videoAsksSent_.load(); }

signals:
    void loaded();
    void failed(const QString& message);
    void audioArrived(ZOR::IDmClip* clip, qint64 begin, qint64 end, std::shared_ptr<const std::vector<float>> values);
    void picturesArrived(ZOR::IDmClip* clip, int width, int height, const QVector<miravel::view::Picture>& pictures);
    void audioStale(ZOR::IDmClip* clip);
    void videoStale(ZOR::IDmClip* clip);
    // After an edit, undo or redo: its result (0 for success) and the
    // timeline as it is now.
    void edited(const QString& what, int result);
    void saved(const QString& path, const QString& error);
    void finished();

private:
    class Callbacks;
    friend class Callbacks;

    // What the library's threads and the document's thread hand to the UI.
    struct Arrival {
        enum Kind { Loaded, Failed, Audio, Pictures, AudioStale, VideoStale, Edited, Saved, Finished };
        explicit Arrival(Kind what) : kind(what) {}
        Kind kind;
        ZOR::IDmClip* clip = nullptr;
        int64_t begin = 0;
        int64_t end = 0;
        std::shared_ptr<const std::vector<float>> values;
        int32_t width = 0;
        int32_t height = 0;
        QVector<Picture> pictures;
        QString text;
        QString detail;
        int32_t result = 0;
        std::shared_ptr<const TimelineModel> model;
    };

    // What the UI thread asked for and the document's thread has not taken.
    struct Wishes {
        std::map<ZOR::IDmClip*, std::optional<AudioAsk>> audio;  // nullopt: cancel
        std::map<ZOR::IDmClip*, std::optional<VideoAsk>> video;
        std::deque<std::function<void()>> jobs;
        bool empty() const { return audio.empty() && video.empty() && jobs.empty(); }
    };

    void run();
    void serve();
    void shutDown();
    void post(Arrival arrival);
    void drain();
    void wish(const std::function<void(Wishes&)>& change);
    void job(std::function<void()> work);

    const Options options_;
    std::shared_ptr<const TimelineModel> model_;  // UI thread
    bool finished_ = false;                       // UI thread

    // Document's thread only.
    ZOR::IDmTimeline* timeline_ = nullptr;             // one reference, from loading to the end
    ZOR::IBsClipThumbnailService* service_ = nullptr;  // one reference
    std::unique_ptr<Callbacks> callbacks_;
    std::set<ZOR::IDmClip*> askedAudio_;  // clips with an audio query out
    std::set<ZOR::IDmClip*> askedVideo_;  // clips with a picture request out

    std::atomic<bool> stop_{false};  // set by close(); the document's thread ends
    std::atomic<int64_t> audioAsksSent_{0};
    std::atomic<int64_t> videoAsksSent_{0};

    // Lock order: each lock below is a leaf, held for a few assignments; no
    // lock of this class is held while calling out. inboxLock_ is taken
    // inside the service's callbacks, after the service's own callback-list
    // locks; wishLock_ by the UI thread and the document's thread only.
    std::mutex wishLock_;                 // guards wishes_
    std::condition_variable wishSignal_;  // waits for stop_ or wishes
    Wishes wishes_;

    std::mutex inboxLock_;  // guards inbox_; drainPosted_ changes under it
    std::vector<Arrival> inbox_;
    std::atomic<bool> drainPosted_{false};

    std::thread thread_;  // started by the constructor, joined by the destructor
};

}  // namespace miravel::view

Q_DECLARE_METATYPE(miravel::view::Picture)
