#include "ui/QAnimatedLabel.h"

QAnimatedLabel::QAnimatedLabel(QWidget* parent) : QLabel(parent) {
    connect(&m_timer, &QTimer::timeout, this, &QAnimatedLabel::changeImage);
}

QAnimatedLabel::~QAnimatedLabel() = default;

void QAnimatedLabel::setFrames(const QStringList& paths, int period) {
    m_timer.stop();
    m_frames.clear();
    if (paths.isEmpty()) return;
    for (const QString& path : paths)
        m_frames.append(QPixmap(path));
    m_next = 0;
    m_timer.start(period);
    setMinimumSize(m_frames.first().size());
    changeImage(); // the first frame at once, not a period later
}

void QAnimatedLabel::changeImage() {
    if (m_frames.isEmpty()) return;
    if (m_next >= m_frames.size()) m_next = 0;
    setPixmap(m_frames.at(m_next));
    ++m_next;
}
