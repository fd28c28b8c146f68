#include "OpenDocument.h"

#include <QMetaObject>

#include <algorithm>
#include <cstring>
#include <exception>
#include <utility>

#include "Adapter/Adapter.h"
#include "DataModel/DmEdit.h"
#include "DataModel/DmTimeline.h"
#include "ListenerCenter/ListenerCenter.h"
#include "Miravel/Miravel.h"
#include "Paths.h"
#include "ThreadPriority.h"

namespace miravel::view {

// The faces the service calls. Each copies what it is given and leaves it in
// the inbox; none calls into the service or waits for anything but the
// inbox's lock (the service holds its callback lists' locks while calling).
class OpenDocument::Callbacks final : public ZOR::IBsAudioClipThumbnailCallback,
                                      public ZOR::IBsVideoClipThumbnailCallback {
public:
    explicit Callbacks(OpenDocument& owner) : owner_(owner) {}

    int32_t onAudioThumbnailNotice(ZOR::IDmClip* clip) override {
        stale(clip, Arrival::AudioStale);
        return 0;
    }
    int32_t onAudioThumbnailChanged(ZOR::IDmClip* audioClip) override {
        stale(audioClip, Arrival::AudioStale);
        return 0;
    }
    int32_t onAudioThumbnailData(ZOR::IDmClip* clip, int64_t beginCns, int64_t endCns, const float* samples,
                                 int32_t count) override {
        Arrival arrival{Arrival::Audio};
        arrival.clip = clip;
        arrival.begin = beginCns;
        arrival.end = endCns;
        arrival.values = samples != nullptr && count > 0
                             ? std::make_shared<const std::vector<float>>(samples, samples + count)
                             : std::make_shared<const std::vector<float>>();
        owner_.post(std::move(arrival));
        return 0;
    }

    int32_t onVideoThumbnailNotice(void* /*value*/) override { return 0; }
    int32_t onVideoThumbnailChanged(ZOR::IDmClip* clip) override {
        stale(clip, Arrival::VideoStale);
        return 0;
    }
    int32_t onVideoThumbnailData(ZOR::IDmClip* clip, int32_t width, int32_t height, ZOR::IZORLonglongList* frames,
                                 ZOR::IZORPByteList* pictures, int32_t count, int32_t bytesPerPicture) override {
        if (frames == nullptr || pictures == nullptr || width < 1 || height < 1) return 0;
        const int64_t bytes = static_cast<int64_t>(width) * height * 4;
        if (bytesPerPicture < bytes) return 0;
        const int32_t available = std::min({count, frames->count(), pictures->count()});
        Arrival arrival{Arrival::Pictures};
        arrival.clip = clip;
        arrival.width = width;
        arrival.height = height;
        for (int32_t i = 0; i < available; ++i) {
            const unsigned char* pixels = pictures->get(i);
            if (pixels == nullptr) continue;
            // The conversion to the painter's own format happens here, on
            // the delivering thread, so that drawing is a plain copy.
            QImage rgba(width, height, QImage::Format_RGBA8888);
            for (int32_t row = 0; row < height; ++row)
                std::memcpy(rgba.scanLine(row), pixels + static_cast<int64_t>(row) * width * 4,
                            static_cast<size_t>(width) * 4);
            arrival.pictures.push_back(
                Picture{frames->get(i), rgba.convertToFormat(QImage::Format_ARGB32_Premultiplied)});
        }
        if (!arrival.pictures.isEmpty()) owner_.post(std::move(arrival));
        return 0;
    }

private:
    void stale(ZOR::IDmClip* clip, Arrival::Kind kind) {
        Arrival arrival{kind};
        arrival.clip = clip;
        owner_.post(std::move(arrival));
    }

    OpenDocument& owner_;
};

OpenDocument::OpenDocument(Options options, QObject* parent) : QObject(parent), options_(std::move(options)) {
    thread_ = std::thread([this] { run(); });
}

OpenDocument::~OpenDocument() {
    close();
    if (thread_.joinable()) thread_.join();
}

// ---------------------------------------------------------------------------
// The UI thread's side

void OpenDocument::wish(const std::function<void(Wishes&)>& change) {
    {
        std::lock_guard<std::mutex> lock(wishLock_);
        change(wishes_);
    }
    wishSignal_.notify_one();
}

void OpenDocument::job(std::function<void()> work) {
    wish([&](Wishes& wishes) { wishes.jobs.push_back(std::move(work)); });
}

void OpenDocument::askAudio(ZOR::IDmClip* audioClip, const AudioAsk& ask) {
    wish([&](Wishes& wishes) { wishes.audio[audioClip] = ask; });
}

void OpenDocument::cancelAudio(ZOR::IDmClip* audioClip) {
    wish([&](Wishes& wishes) { wishes.audio[audioClip] = std::nullopt; });
}

void OpenDocument::askVideo(ZOR::IDmClip* clip, const VideoAsk& ask) {
    wish([&](Wishes& wishes) { wishes.video[clip] = ask; });
}

void OpenDocument::cancelVideo(ZOR::IDmClip* clip) {
    wish([&](Wishes& wishes) { wishes.video[clip] = std::nullopt; });
}

void OpenDocument::edit(const QString& what, Edit edit) {
    job([this, what, edit = std::move(edit)] {
        int32_t result = ZOR::kResultFailure;
        try {
            ZOR::runOnEventThread([&] { result = edit(timeline_); });
        } catch (const std::exception&) {
            result = ZOR::kResultFailure;
        }
        Arrival arrival{Arrival::Edited};
        arrival.text = what;
        arrival.result = result;
        arrival.model = TimelineModel::read(timeline_);
        post(std::move(arrival));
    });
}

void OpenDocument::undo() {
    edit(QStringLiteral("undo"), [](ZOR::IDmTimeline* timeline) { return ZOR::undoTimelineEdit(timeline); });
}

void OpenDocument::redo() {
    edit(QStringLiteral("redo"), [](ZOR::IDmTimeline* timeline) { return ZOR::redoTimelineEdit(timeline); });
}

void OpenDocument::save(const QString& path) {
    job([this, path] {
        std::string error;
        const std::string file = path.toStdString();
        if (ZOR::writeTimelineDocument(timeline_, file.c_str(), &error) != 0 && error.empty())
            error = file + ": cannot write";
        Arrival arrival{Arrival::Saved};
        arrival.text = path;
        arrival.detail = QString::fromStdString(error);
        post(std::move(arrival));
    });
}

void OpenDocument::close() {
    stop_.store(true);
    { std::lock_guard<std::mutex> lock(wishLock_); }  // a waiter sees stop_ before it sleeps again
    wishSignal_.notify_all();
}

void OpenDocument::post(Arrival arrival) {
    bool first = false;
    {
        std::lock_guard<std::mutex> lock(inboxLock_);
        inbox_.push_back(std::move(arrival));
        first = !drainPosted_.exchange(true);
    }
    // One queued call carries every arrival until the UI thread drains them.
    if (first)
        QMetaObject::invokeMethod(
            this, [this] { drain(); }, Qt::QueuedConnection);
}

void OpenDocument::drain() {
    std::vector<Arrival> arrivals;
    {
        std::lock_guard<std::mutex> lock(inboxLock_);
        arrivals.swap(inbox_);
        drainPosted_.store(false);
    }
    for (Arrival& arrival : arrivals) {
        switch (arrival.kind) {
            case Arrival::Loaded:
                model_ = std::move(arrival.model);
                emit loaded();
                if (!arrival.text.isEmpty()) emit failed(arrival.text);
                break;
            case Arrival::Failed:
                emit failed(arrival.text);
                break;
            case Arrival::Audio:
                emit audioArrived(arrival.clip, arrival.begin, arrival.end, std::move(arrival.values));
                break;
            case Arrival::Pictures:
                emit picturesArrived(arrival.clip, arrival.width, arrival.height, arrival.pictures);
                break;
            case Arrival::AudioStale:
                emit audioStale(arrival.clip);
                break;
            case Arrival::VideoStale:
                emit videoStale(arrival.clip);
                break;
            case Arrival::Edited:
                model_ = std::move(arrival.model);
                emit edited(arrival.text, arrival.result);
                break;
            case Arrival::Saved:
                emit saved(arrival.text, arrival.detail);
                break;
            case Arrival::Finished:
                finished_ = true;
                emit finished();
                break;
        }
    }
}

// ---------------------------------------------------------------------------
// The document's thread

void OpenDocument::run() {
    lowerThisThreadsPriority();
    if (options_.demo) {
        try {
            makeDemo(options_.demoFolder, stop_);
        } catch (const DemoStopped&) {
            post(Arrival{Arrival::Finished});
            return;
        } catch (const std::exception& error) {
            Arrival failure{Arrival::Failed};
            failure.text = QString::fromStdString(error.what());
            post(std::move(failure));
            post(Arrival{Arrival::Finished});
            return;
        }
    }
    std::string error;
    std::vector<std::string> warnings;
    timeline_ = ZOR::loadTimelineDocument(options_.document.c_str(), &error, &warnings);
    if (timeline_ == nullptr) {
        Arrival failure{Arrival::Failed};
        failure.text = QString::fromStdString(error.empty() ? options_.document + ": cannot read" : error);
        post(std::move(failure));
        post(Arrival{Arrival::Finished});
        return;
    }
    Arrival loaded{Arrival::Loaded};
    loaded.model = TimelineModel::read(timeline_);
    for (const std::string& warning : warnings) {
        if (!loaded.text.isEmpty()) loaded.text += QLatin1Char('\n');
        loaded.text += QString::fromStdString("warning: " + warning);
    }
    post(std::move(loaded));

    service_ = createBsClipThumbnaiService();
    callbacks_ = std::make_unique<Callbacks>(*this);
    if (service_ != nullptr) {
        service_->addAudioClipThumbnailCallback(callbacks_.get());
        service_->addVideoClipThumbnailCallback(callbacks_.get());
        serve();
    }
    shutDown();
    post(Arrival{Arrival::Finished});
}

void OpenDocument::serve() {
    for (;;) {
        Wishes work;
        {
            std::unique_lock<std::mutex> lock(wishLock_);
            wishSignal_.wait(lock, [this] { return stop_.load() || !wishes_.empty(); });
            if (stop_.load()) return;  // what was wished is dropped with the document
            work = std::exchange(wishes_, Wishes{});
        }
        for (const auto& [clip, ask] : work.audio) {
            if (ask) {
                service_->queryAudioThumbnailData(clip, ask->begin, ask->end, ask->count);
                askedAudio_.insert(clip);
                audioAsksSent_.fetch_add(1);
            } else if (askedAudio_.erase(clip) != 0) {
                service_->cancelAudioThumbnailQuery(clip);
            }
        }
        for (const auto& [clip, ask] : work.video) {
            if (!ask) {
                if (askedVideo_.erase(clip) != 0) service_->cancelVideoThumbnailQuery(clip);
                continue;
            }
            int32_t streamId = -1;
            ZOR::ZorProperty value;
            auto* feature = static_cast<ZOR::IDmVideoFeature*>(clip->queryInterface("IDmVideoFeature"));
            if (feature != nullptr && feature->getProperty(ZOR::videoKey::streamId, &value) == 0)
                streamId = static_cast<int32_t>(value.intValue);
            std::vector<int64_t> frames = ask->times;  // the service sorts them in place
            ZOR::VideoThumbnailRequest request;
            request.clip = clip;
            request.width = ask->width;
            request.height = ask->height;
            request.streamId = streamId;
            request.frames = frames.data();
            request.frameCount = static_cast<int32_t>(frames.size());
            // Pictures already cached are delivered during this call.
            service_->queryVideoThumbnail(&request);
            askedVideo_.insert(clip);
            videoAsksSent_.fetch_add(1);
        }
        for (std::function<void()>& task : work.jobs) {
            if (stop_.load()) return;
            task();
        }
    }
}

void OpenDocument::shutDown() {
    if (service_ != nullptr) {
        for (ZOR::IDmClip* clip : askedAudio_) service_->cancelAudioThumbnailQuery(clip);
        for (ZOR::IDmClip* clip : askedVideo_) service_->cancelVideoThumbnailQuery(clip);
        askedAudio_.clear();
        askedVideo_.clear();
        service_->removeAudioClipThumbnailCallback(callbacks_.get());
        service_->removeVideoClipThumbnailCallback(callbacks_.get());
        // The last service of the timeline takes its builders with it: their
        // workers are joined and their tasks shut down before this returns,
        // so nothing is being written once the document has finished.
        service_->Release();
        service_ = nullptr;
    }
    if (timeline_ != nullptr) {
        timeline_->Release();
        timeline_ = nullptr;
    }
}

}  // namespace miravel::view
