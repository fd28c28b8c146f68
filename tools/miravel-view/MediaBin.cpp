#include "MediaBin.h"

#include <QMouseEvent>
#include <QPainter>

#include <algorithm>

namespace miravel::view {

MediaBin::MediaBin(QWidget* parent) : QWidget(parent) {
    setMouseTracking(true);
    setAttribute(Qt::WA_OpaquePaintEvent);
    setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Preferred);
}

void MediaBin::setThumbs(MediaThumbs* thumbs) {
    for (const QMetaObject::Connection& connection : connections_) disconnect(connection);
    connections_.clear();
    thumbs_ = thumbs;
    tiles_.clear();
    hovered_ = -1;
    if (thumbs_ != nullptr) {
        connections_.push_back(
            connect(thumbs_, &MediaThumbs::mediaListed, this, [this](const QVector<MediaEntry>& entries) {
                tiles_.clear();
                for (const MediaEntry& entry : entries) tiles_.push_back(Tile{entry, QImage(), -1, false});
                updateGeometry();
                update();
            }));
        connections_.push_back(connect(thumbs_, &MediaThumbs::pictureShown, this,
                                       [this](int index, const QImage& image, int frame, bool hovering) {
                                           if (index < 0 || index >= tileCount()) return;
                                           Tile& tile = tiles_[static_cast<size_t>(index)];
                                           tile.image = image;
                                           tile.frame = frame;
                                           tile.hovering = hovering;
                                           update(tileRect(index));
                                           emit pictureShown(index, frame, hovering);
                                       }));
    }
    update();
}

void MediaBin::setMedia(const std::vector<std::string>& files) {
    tiles_.clear();
    hovered_ = -1;
    if (thumbs_ != nullptr) thumbs_->setMedia(files);
    update();
}

int MediaBin::columns(int width) const {
    const int box = thumbs_ != nullptr ? thumbs_->options().boxWidth : 160;
    return std::max(1, (width - kSpacing) / (box + kSpacing));
}

QRect MediaBin::tileRect(int index) const {
    const int boxWidth = thumbs_ != nullptr ? thumbs_->options().boxWidth : 160;
    const int boxHeight = thumbs_ != nullptr ? thumbs_->options().boxHeight : 90;
    const int perRow = columns(width());
    const int column = index % perRow;
    const int row = index / perRow;
    return {kSpacing + column * (boxWidth + kSpacing), kSpacing + row * (boxHeight + kLabel + kSpacing), boxWidth,
            boxHeight + kLabel};
}

QRect MediaBin::pictureRect(int index) const {
    const QRect tile = tileRect(index);
    return {tile.left(), tile.top(), tile.width(), tile.height() - kLabel};
}

const MediaEntry* MediaBin::entry(int index) const {
    return index >= 0 && index < tileCount() ? &tiles_[static_cast<size_t>(index)].entry : nullptr;
}

int MediaBin::shownFrame(int index) const {
    return index >= 0 && index < tileCount() ? tiles_[static_cast<size_t>(index)].frame : -1;
}

bool MediaBin::showsHoveredPicture(int index) const {
    return index >= 0 && index < tileCount() && tiles_[static_cast<size_t>(index)].hovering;
}

int MediaBin::heightForWidth(int width) const {
    const int boxHeight = thumbs_ != nullptr ? thumbs_->options().boxHeight : 90;
    const int rows = std::max(1, (tileCount() + columns(width) - 1) / columns(width));
    return kSpacing + rows * (boxHeight + kLabel + kSpacing);
}

QSize MediaBin::sizeHint() const {
    const int boxWidth = thumbs_ != nullptr ? thumbs_->options().boxWidth : 160;
    return {kSpacing + 3 * (boxWidth + kSpacing), heightForWidth(kSpacing + 3 * (boxWidth + kSpacing))};
}

void MediaBin::hoverTile(int index, double position) {
    if (thumbs_ == nullptr || index < 0 || index >= tileCount()) return;
    if (hovered_ >= 0 && hovered_ != index) thumbs_->leave(hovered_);
    hovered_ = index;
    thumbs_->hover(index, position);
}

void MediaBin::leaveTile() {
    if (thumbs_ != nullptr && hovered_ >= 0) thumbs_->leave(hovered_);
    hovered_ = -1;
}

void MediaBin::mouseMoveEvent(QMouseEvent* event) {
    const QPoint point = event->position().toPoint();
    for (int i = 0; i < tileCount(); ++i) {
        const QRect picture = pictureRect(i);
        if (picture.contains(point) && tiles_[static_cast<size_t>(i)].entry.video) {
            hoverTile(i, static_cast<double>(point.x() - picture.left()) / std::max(1, picture.width() - 1));
            return;
        }
    }
    leaveTile();
}

void MediaBin::leaveEvent(QEvent* /*event*/) { leaveTile(); }

void MediaBin::paintEvent(QPaintEvent* event) {
    QPainter painter(this);
    painter.fillRect(event->rect(), QColor(30, 30, 32));
    QFont font = painter.font();
    font.setPixelSize(11);
    painter.setFont(font);
    for (int i = 0; i < tileCount(); ++i) {
        const Tile& tile = tiles_[static_cast<size_t>(i)];
        const QRect picture = pictureRect(i);
        if (!event->rect().intersects(tileRect(i))) continue;
        painter.fillRect(picture, QColor(52, 56, 64));
        if (!tile.image.isNull()) {
            const QPoint at(picture.left() + (picture.width() - tile.image.width()) / 2,
                            picture.top() + (picture.height() - tile.image.height()) / 2);
            painter.drawImage(at, tile.image);
        } else {
            painter.setPen(QColor(170, 170, 170));
            painter.drawText(picture, Qt::AlignCenter, tile.entry.video ? tr("…") : tr("♪ sound"));
        }
        if (tile.hovering) {
            painter.setPen(QColor(255, 210, 90));
            painter.drawRect(picture.adjusted(0, 0, -1, -1));
        }
        painter.setPen(QColor(220, 220, 220));
        painter.drawText(QRect(picture.left(), picture.bottom() + 2, picture.width(), kLabel - 2),
                         Qt::AlignLeft | Qt::AlignVCenter,
                         painter.fontMetrics().elidedText(tile.entry.name, Qt::ElideMiddle, picture.width()));
    }
}

}  // namespace miravel::view
