#include "MediaThumbs.h"

#include <QMetaObject>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "Adapter/Adapter.h"
#include "DataModel/DataModel.h"
#include "Miravel/Miravel.h"
#include "Paths.h"
#include "ThreadPriority.h"
#include "ZorUtils/ZorUtils.h"

namespace miravel::view {

struct MediaThumbs::Item {
    std::string path;
    bool video = false;
    ZOR::MediaThumbRequest request{};
    std::string shown;  // the file shown now
    bool hovering = false;
    double position = 0.0;
};

// Told of each file the manager's worker writes, with the manager's lock
// held: it only notes which media changed and wakes the thread.
class MediaThumbs::Callback final : public ZOR::IBsThumbManagerCallback {
public:
    explicit Callback(MediaThumbs& owner) : owner_(owner) {}
    void onThumbnail(const ZOR::MediaThumbRequest* request, int32_t /*frameIndex*/, const char* /*pngPath*/) override {
        if (request != nullptr) owner_.changed(request->rootDir);
    }

private:
    MediaThumbs& owner_;
};

MediaThumbs::MediaThumbs(Options options, QObject* parent) : QObject(parent), options_(std::move(options)) {
    thread_ = std::thread([this] { run(); });
}

MediaThumbs::~MediaThumbs() {
    {
        std::lock_guard<std::mutex> lock(lock_);
        stop_.store(true);
    }
    signal_.notify_all();
    if (thread_.joinable()) thread_.join();
}

void MediaThumbs::setMedia(const std::vector<std::string>& files) {
    {
        std::lock_guard<std::mutex> lock(lock_);
        newMedia_ = files;
        hovers_.clear();
    }
    signal_.notify_all();
}

void MediaThumbs::hover(int index, double position) {
    {
        std::lock_guard<std::mutex> lock(lock_);
        hovers_[index] = std::clamp(position, 0.0, 1.0);
    }
    signal_.notify_all();
}

void MediaThumbs::leave(int index) {
    {
        std::lock_guard<std::mutex> lock(lock_);
        hovers_[index] = std::nullopt;
    }
    signal_.notify_all();
}

void MediaThumbs::changed(const char* rootDir) {
    {
        std::lock_guard<std::mutex> lock(lock_);
        changedRoots_.insert(rootDir);
    }
    signal_.notify_all();
}

void MediaThumbs::run() {
    lowerThisThreadsPriority();
    ZOR::IBsThumbManager* manager = createThumbManager();
    if (manager == nullptr) return;
    Callback callback(*this);
    manager->setThumbSize(options_.boxWidth, options_.boxHeight);
    manager->setThumbCount(options_.count);
    manager->addCallback(&callback);
    const auto getFrame = [&](Item& item, double position) {
        char out[1024] = {};
        return manager->getFrame(&item.request, position, out) == 0 ? std::string(out) : std::string();
    };
    for (;;) {
        std::optional<std::vector<std::string>> media;
        std::map<int, std::optional<double>> hovers;
        std::set<std::string> roots;
        {
            std::unique_lock<std::mutex> lock(lock_);
            signal_.wait(lock,
                         [this] { return stop_.load() || newMedia_ || !hovers_.empty() || !changedRoots_.empty(); });
            if (stop_.load()) break;
            media = std::exchange(newMedia_, std::nullopt);
            hovers.swap(hovers_);
            roots.swap(changedRoots_);
        }
        std::set<int> toShow;
        if (media) {
            for (Item& item : items_)
                if (item.video) manager->stopGetFrame(&item.request);
            listMedia(*media);
            for (size_t i = 0; i < items_.size(); ++i) toShow.insert(static_cast<int>(i));
        }
        for (const auto& [index, position] : hovers) {
            if (index < 0 || static_cast<size_t>(index) >= items_.size()) continue;
            Item& item = items_[static_cast<size_t>(index)];
            item.hovering = position.has_value();
            item.position = position.value_or(0.0);
            toShow.insert(index);
        }
        for (size_t i = 0; i < items_.size(); ++i)
            if (roots.count(items_[i].request.rootDir) != 0) toShow.insert(static_cast<int>(i));
        for (int index : toShow) {
            Item& item = items_[static_cast<size_t>(index)];
            if (!item.video) continue;
            // The nearest picture on disk at once; asking also queues the
            // media, so that the exact one is made.
            const std::string path = getFrame(item, item.hovering ? item.position : 0.0);
            if (path.empty() || path == item.shown) continue;
            QImage image(QString::fromStdString(path));
            if (image.isNull()) continue;
            item.shown = path;
            const std::string name = std::filesystem::path(path).filename().string();
            const int frame = std::atoi(name.c_str());
            const bool hovering = item.hovering;
            QMetaObject::invokeMethod(
                this,
                [this, index, image = image.convertToFormat(QImage::Format_ARGB32_Premultiplied), frame, hovering] {
                    emit pictureShown(index, image, frame, hovering);
                },
                Qt::QueuedConnection);
        }
    }
    manager->removeCallback(&callback);
    // Releasing the manager stops its worker at the next picture and joins it.
    manager->Release();
}

void MediaThumbs::listMedia(const std::vector<std::string>& files) {
    items_.clear();
    QVector<MediaEntry> entries;
    for (const std::string& file : files) {
        Item item;
        item.path = file;
        MediaEntry entry;
        entry.path = QString::fromStdString(file);
        entry.name = QString::fromStdString(std::filesystem::path(file).filename().string());
        int64_t duration = 0;
        if (ZOR::IDmMediaInfo* info = ZOR::getDmFactoryInstance()->createMediaInfo(file.c_str())) {
            ZOR::ZorProperty value;
            if (info->getProperty(ZOR::mediaInfoKey::width, &value) == 0 && value.intValue > 0) item.video = true;
            if (info->getProperty(ZOR::mediaInfoKey::duration, &value) == 0) duration = value.intValue;
            info->Release();
        }
        item.video = item.video && duration > 0;
        std::memset(&item.request, 0, sizeof item.request);
        ZOR::zor_strcpy(item.request.mediaPath, sizeof item.request.mediaPath, file.c_str());
        const std::string root = mediaThumbnailRoot(options_.cacheRoot, file);
        ZOR::zor_strcpy(item.request.rootDir, sizeof item.request.rootDir, root.c_str());
        item.request.startTime = 0;
        item.request.endTime = duration;
        item.request.duration = std::max<int64_t>(duration, 1);
        entry.video = item.video;
        entry.duration = duration;
        entries.push_back(entry);
        items_.push_back(std::move(item));
    }
    QMetaObject::invokeMethod(
        this, [this, entries] { emit mediaListed(entries); }, Qt::QueuedConnection);
}

}  // namespace miravel::view
