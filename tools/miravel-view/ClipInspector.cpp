#include "ClipInspector.h"

#include <QCheckBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QLabel>
#include <QSignalBlocker>
#include <QVBoxLayout>

namespace miravel::view {
namespace {

QString seconds(int64_t cns) { return QString::number(static_cast<double>(cns) / 1e7, 'f', 2); }

}  // namespace

ClipInspector::ClipInspector(QWidget* parent) : QWidget(parent) {
    title_ = new QLabel(tr("No clip selected"), this);
    QFont bold = title_->font();
    bold.setBold(true);
    title_->setFont(bold);
    details_ = new QLabel(this);
    details_->setWordWrap(true);

    volume_ = new QDoubleSpinBox(this);
    volume_->setRange(-60.0, 12.0);
    volume_->setDecimals(1);
    volume_->setSingleStep(1.0);
    volume_->setSuffix(tr(" dB"));
    // One edit per finished value, not one per keystroke.
    volume_->setKeyboardTracking(false);
    mute_ = new QCheckBox(tr("Mute"), this);
    ducking_ = new QCheckBox(tr("Ducks other clips"), this);
    depth_ = new QDoubleSpinBox(this);
    depth_->setRange(0.0, 1.0);
    depth_->setDecimals(2);
    depth_->setSingleStep(0.05);
    depth_->setKeyboardTracking(false);
    reverse_ = new QCheckBox(tr("Plays backwards"), this);

    auto* form = new QFormLayout;
    form->addRow(tr("Volume"), volume_);
    form->addRow(QString(), mute_);
    form->addRow(QString(), ducking_);
    form->addRow(tr("Ducking depth"), depth_);
    form->addRow(QString(), reverse_);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(title_);
    layout->addWidget(details_);
    layout->addLayout(form);
    layout->addStretch(1);

    connect(volume_, &QDoubleSpinBox::valueChanged, this, [this](double db) { emit volumeEdited(db); });
    connect(mute_, &QCheckBox::toggled, this, [this](bool on) { emit muteEdited(on); });
    connect(ducking_, &QCheckBox::toggled, this, [this](bool on) { emit duckingEdited(on, depth_->value()); });
    connect(depth_, &QDoubleSpinBox::valueChanged, this,
            [this](double depth) { emit duckingEdited(ducking_->isChecked(), depth); });
    connect(reverse_, &QCheckBox::toggled, this, [this](bool on) { emit reverseEdited(on); });
    showClip(nullptr);
}

void ClipInspector::showClip(const ClipInfo* clip) {
    const QSignalBlocker blockVolume(volume_);
    const QSignalBlocker blockMute(mute_);
    const QSignalBlocker blockDucking(ducking_);
    const QSignalBlocker blockDepth(depth_);
    const QSignalBlocker blockReverse(reverse_);
    const bool sound = clip != nullptr && clip->audio != nullptr;
    for (QWidget* control : std::initializer_list<QWidget*>{volume_, mute_, ducking_, depth_, reverse_})
        control->setEnabled(sound);
    if (clip == nullptr) {
        title_->setText(tr("No clip selected"));
        details_->clear();
        return;
    }
    title_->setText(QString::fromStdString(clip->name));
    QString text = tr("%1 s to %2 s on the timeline, media from %3 s to %4 s")
                       .arg(seconds(clip->begin), seconds(clip->end), seconds(clip->markIn), seconds(clip->markOut));
    if (!sound) text += tr("\nno sound");
    if (clip->hasKeyframes) text += tr("\nvolume keyframes: they set the level, the volume does not");
    details_->setText(text);
    volume_->setValue(clip->volumeDb);
    mute_->setChecked(clip->mute);
    ducking_->setChecked(clip->ducking);
    depth_->setValue(clip->duckingDepth);
    reverse_->setChecked(clip->reverse);
}

}  // namespace miravel::view
