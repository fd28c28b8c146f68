// The media bin: one tile per media file of the document, showing its media
// thumbnail; moving the pointer across a tile scrubs through the file.
// Painting draws the pictures MediaThumbs loaded; nothing is read here.
#pragma once

#include <QImage>
#include <QWidget>

#include <vector>

#include "MediaThumbs.h"

namespace miravel::view {

class MediaBin : public QWidget {
    Q_OBJECT

public:
    static constexpr int kLabel = 18;
    static constexpr int kSpacing = 8;

    explicit MediaBin(QWidget* parent = nullptr);

    // The thumbnails to show (null: none). The bin does not own them.
    void setThumbs(MediaThumbs* thumbs);
    void setMedia(const std::vector<std::string>& files);

    int tileCount() const { return static_cast<int>(tiles_.size()); }
    QRect tileRect(int index) const;     // the whole tile
    QRect pictureRect(int index) const;  // its picture box
    const MediaEntry* entry(int index) const;
    // The frame index of the picture the tile shows (-1: none yet).
    int shownFrame(int index) const;
    bool showsHoveredPicture(int index) const;
    // As the pointer does: position 0..1 across the tile's media.
    void hoverTile(int index, double position);
    void leaveTile();

    QSize sizeHint() const override;
    bool hasHeightForWidth() const override { return true; }
    int heightForWidth(int width) const override;

signals:
    void pictureShown(int index, int frameIndex, bool hovering);

protected:
    void paintEvent(QPaintEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void leaveEvent(QEvent* event) override;

private:
    struct Tile {
        MediaEntry entry;
        QImage image;
        int frame = -1;
        bool hovering = false;
    };
    int columns(int width) const;

    MediaThumbs* thumbs_ = nullptr;
    std::vector<QMetaObject::Connection> connections_;
    std::vector<Tile> tiles_;
    int hovered_ = -1;
};

}  // namespace miravel::view
