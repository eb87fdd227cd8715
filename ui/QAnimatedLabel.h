// QAnimatedLabel: a label that cycles through pictures, the preview's sign
// that a computation is under way. The timer runs as long as the label
// lives; only the label's visibility says whether anyone is waiting.
#pragma once

#include <QLabel>
#include <QList>
#include <QPixmap>
#include <QStringList>
#include <QTimer>

class QAnimatedLabel : public QLabel {
    Q_OBJECT

public:
    explicit QAnimatedLabel(QWidget* parent = nullptr);
    ~QAnimatedLabel() override;

    // Replaces the frames by the pictures at `paths`, shown `period`
    // milliseconds each; an empty list stops the animation.
    void setFrames(const QStringList& paths, int period);
    int frameCount() const { return static_cast<int>(m_frames.size()); }

private slots:
    void changeImage();

private:
    QList<QPixmap> m_frames;
    int m_next = 0;
    QTimer m_timer;
};
