// The selected clip's sound: volume (dB), mute, ducking (on or off, and its
// depth) and reverse. Changing a control asks for the edit; the values shown
// are those of the timeline as it was read after the last edit.
#pragma once

#include <QWidget>

#include "TimelineModel.h"

class QCheckBox;
class QDoubleSpinBox;
class QLabel;

namespace miravel::view {

class ClipInspector : public QWidget {
    Q_OBJECT

public:
    explicit ClipInspector(QWidget* parent = nullptr);

    // Shows clip (null: nothing selected); the controls do not signal while
    // they are set.
    void showClip(const ClipInfo* clip);

    QDoubleSpinBox* volume() const { return volume_; }
    QCheckBox* mute() const { return mute_; }
    QCheckBox* ducking() const { return ducking_; }
    QDoubleSpinBox* duckingDepth() const { return depth_; }
    QCheckBox* reverse() const { return reverse_; }

signals:
    void volumeEdited(double db);
    void muteEdited(bool mute);
    void duckingEdited(bool enabled, double depth);
    void reverseEdited(bool reverse);

private:
    QLabel* title_;
    QLabel* details_;
    QDoubleSpinBox* volume_;
    QCheckBox* mute_;
    QCheckBox* ducking_;
    QDoubleSpinBox* depth_;
    QCheckBox* reverse_;
};

}  // namespace miravel::view
