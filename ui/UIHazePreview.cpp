#include "ui/UIHazePreview.h"

#include "ZImage/ZImage.h"
#include "ZImage/ZImageHaze.h"
#include "plugin/PluginInfo.h"
#include "plugin/ZIApplication.h"
#include "ui/ComputePreview.h"
#include "ui/QAnimatedLabel.h"

#include <QCheckBox>
#include <QCoreApplication>
#include <QFrame>
#include <QGridLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QMouseEvent>
#include <QPainter>
#include <QSignalBlocker>
#include <QSlider>
#include <QSpinBox>
#include <algorithm>

UIHazePreview::UIHazePreview(ZHazeOne2One* plugin, QWidget* parent)
    : QWidget(parent), m_plugin(plugin), m_thread(new ComputePreview(plugin, this)) {
    setupUi();
    // The animation floats over the picture instead of taking a cell.
    gridLayout->removeWidget(labelState);
    labelState->hide();
    QStringList frames;
    for (int i = 1; i <= 12; ++i)
        frames << QStringLiteral(":/%1/Resources/iconwait_%2.png")
                      .arg(PluginInfo::processId())
                      .arg(i, 2, 10, QLatin1Char('0'));
    labelState->setFrames(frames, 100);
    labelState->resize(labelState->minimumSize());
    setFocusPolicy(Qt::StrongFocus); // for Alt, the depth-map key
    connect(m_thread, &ComputePreview::sourceLoaded, this, &UIHazePreview::onSourceLoaded);
}

UIHazePreview::~UIHazePreview() {
    disconnect(m_thread, nullptr, this, nullptr);
    m_thread->wait();
}

void UIHazePreview::setupUi() {
    setObjectName(QStringLiteral("UIHazePreviewClass"));
    resize(414, 281);
    gridLayout = new QGridLayout(this);
    gridLayout->setObjectName(QStringLiteral("gridLayout"));

    frame = new QFrame(this);
    frame->setObjectName(QStringLiteral("frame"));
    frame->setFrameShape(QFrame::Box);
    frame->setFrameShadow(QFrame::Raised);
    frame->setMinimumSize(240, 160);
    frame->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    gridLayout->addWidget(frame, 0, 3, 1, 5);

    label = new QLabel(this);
    label->setObjectName(QStringLiteral("label"));
    gridLayout->addWidget(label, 1, 3);

    horizontalSlider = new QSlider(this);
    horizontalSlider->setObjectName(QStringLiteral("horizontalSlider"));
    horizontalSlider->setOrientation(Qt::Horizontal);
    horizontalSlider->setMaximum(100);
    horizontalSlider->setPageStep(10);
    gridLayout->addWidget(horizontalSlider, 1, 4);

    spinBoxPourcent = new QSpinBox(this);
    spinBoxPourcent->setObjectName(QStringLiteral("spinBoxPourcent"));
    spinBoxPourcent->setMaximum(100);
    spinBoxPourcent->setFocusPolicy(Qt::WheelFocus);
    gridLayout->addWidget(spinBoxPourcent, 1, 5);
    label->setBuddy(spinBoxPourcent);

    checkBoxSplit = new QCheckBox(this);
    checkBoxSplit->setObjectName(QStringLiteral("checkBoxSplit"));
    checkBoxSplit->setChecked(true);
    gridLayout->addWidget(checkBoxSplit, 1, 6);

    labelState = new QAnimatedLabel(this);
    labelState->setObjectName(QStringLiteral("labelState"));
    labelState->setMinimumSize(32, 32);
    labelState->setAlignment(Qt::AlignCenter);
    gridLayout->addWidget(labelState, 1, 7);

    // Not a cell of the grid either: the failure's text lies over the picture.
    labelError = new QLabel(this);
    labelError->setObjectName(QStringLiteral("labelError"));
    labelError->setWordWrap(true);
    labelError->setAlignment(Qt::AlignCenter);
    labelError->setStyleSheet(
        QStringLiteral("QLabel { background: rgba(0, 0, 0, 170); color: white; padding: 12px; }"));
    labelError->hide();

    gridLayout->setRowStretch(0, 1);
    gridLayout->setColumnStretch(4, 1);

    retranslateUi();
    connect(horizontalSlider, &QSlider::valueChanged, spinBoxPourcent, &QSpinBox::setValue);
    connect(spinBoxPourcent, &QSpinBox::valueChanged, horizontalSlider, &QSlider::setValue);
    QMetaObject::connectSlotsByName(this);
}

void UIHazePreview::retranslateUi() {
    setWindowTitle(QCoreApplication::translate("UIHazePreviewClass", "Haze Correction"));
    label->setText(QCoreApplication::translate("UIHazePreviewClass", "Power"));
    checkBoxSplit->setText(QCoreApplication::translate("UIHazePreviewClass", "Split preview"));
    if (!m_error.isEmpty()) labelError->setText(tr("The preview failed:\n%1").arg(m_error));
}

void UIHazePreview::changeEvent(QEvent* event) {
    if (event->type() == QEvent::LanguageChange) retranslateUi();
    QWidget::changeEvent(event);
}

QSize UIHazePreview::previewSize(int width, int height) {
    // A file whose size is unknown is still handed to the worker, whose
    // decode then says what is wrong with it.
    if (width <= 0 || height <= 0) return QSize(1024, 1024);
    if (width > height) return QSize(1024, static_cast<int>(height * 1024.0 / width));
    return QSize(static_cast<int>(width * 1024.0 / height), 1024);
}

void UIHazePreview::setImage(ZIHostImage* image, HazeSettings* settings) {
    m_image = image;
    m_settings = settings;
    ++m_tag;
    m_before = QImage();
    m_after = QImage();
    m_beforePixmap = m_afterPixmap = QPixmap();
    if (!m_image || !m_settings) {
        labelState->hide();
        setComplete(true);
        update();
        return;
    }
    m_previewSize = previewSize(image->width(), image->height());
    {
        // One computation for the new image, not one more for its strength.
        const QSignalBlocker spin(spinBoxPourcent);
        const QSignalBlocker slider(horizontalSlider);
        spinBoxPourcent->setValue(settings->strength);
        horizontalSlider->setValue(settings->strength);
    }
    if (const auto source = m_thread->cachedSource(image, m_previewSize)) {
        source->ToQImage(m_before);
        m_beforePixmap = framePixmap(m_before);
    }
    computePreview();
}

void UIHazePreview::clearCache() {
    m_thread->clearCache();
}

void UIHazePreview::onSourceLoaded(quint64 tag) {
    if (tag != m_tag || !m_image) return;
    if (const auto source = m_thread->cachedSource(m_image, m_previewSize)) {
        source->ToQImage(m_before);
        m_beforePixmap = framePixmap(m_before);
        update();
    }
}

void UIHazePreview::setComplete(bool complete) {
    setProperty("isComplete", complete);
    QObject* page = parent();
    if (page && page->metaObject()->indexOfSignal("completeChanged()") >= 0)
        QMetaObject::invokeMethod(page, "completeChanged");
}

void UIHazePreview::on_spinBoxPourcent_valueChanged(int value) {
    if (!m_settings) return;
    m_settings->strength = value;
    if (!m_thread->isRunning()) labelState->show();
    computePreview();
}

void UIHazePreview::on_checkBoxSplit_stateChanged(int /*state*/) {
    update();
}

void UIHazePreview::computePreview() {
    if (!m_image || !m_settings) {
        // An armed rerun that finds the images gone: nothing to wait for.
        labelState->setVisible(m_thread->isRunning());
        setComplete(!m_thread->isRunning());
        return;
    }
    setComplete(false);
    placeOverlays();
    labelState->show();
    labelState->raise();
    m_after = QImage();
    m_afterPixmap = QPixmap();
    m_showingDepth = false;
    m_error.clear();
    labelError->hide();

    m_thread->setParameters({m_image, m_previewSize, m_settings->strength, m_tag});
    if (!m_thread->isRunning()) {
        disconnect(m_thread, &QThread::finished, this, &UIHazePreview::computePreview);
        connect(m_thread, &QThread::finished, this, &UIHazePreview::updatePreview,
                Qt::UniqueConnection);
        m_thread->start(QThread::InheritPriority);
        m_state = tr("Preview is uptodate");
    } else {
        // The run in flight is never shown: its end starts the newest
        // parameters instead, however many changes came meanwhile.
        disconnect(m_thread, &QThread::finished, this, &UIHazePreview::updatePreview);
        connect(m_thread, &QThread::finished, this, &UIHazePreview::computePreview,
                Qt::UniqueConnection);
    }
    update();
}

void UIHazePreview::updatePreview() {
    setComplete(true);
    QString error;
    const quint64 tag = m_thread->result(m_after, error);
    if (tag != m_tag) m_after = QImage(); // never the picture of another image
    m_error = tag == m_tag ? error : QString();
    if (m_before.isNull() && m_image) onSourceLoaded(m_tag);
    m_afterPixmap = framePixmap(m_after);
    m_showingDepth = false;
    labelError->setText(m_error.isEmpty() ? QString() : tr("The preview failed:\n%1").arg(m_error));
    labelError->setVisible(!m_error.isEmpty());
    labelState->setVisible(m_thread->isRunning());
    placeOverlays();
    update();
}

void UIHazePreview::showDepth() {
    m_thread->showAirDepth(m_after);
    m_afterPixmap = framePixmap(m_after);
    labelState->hide();
    m_showingDepth = true;
    update();
}

QPixmap UIHazePreview::framePixmap(const QImage& image) const {
    if (image.isNull() || frame->width() <= 0 || frame->height() <= 0) return QPixmap();
    // Fast scaling: it is redone on every change while the slider is dragged.
    return QPixmap::fromImage(
        image.scaled(frame->size(), Qt::KeepAspectRatio, Qt::FastTransformation));
}

QRect UIHazePreview::pictureRect(QSize size) const {
    const QRect f = frame->geometry();
    return QRect(f.topLeft() +
                     QPoint((f.width() - size.width()) / 2, (f.height() - size.height()) / 2),
                 size);
}

void UIHazePreview::placeOverlays() {
    const QRect f = frame->geometry();
    labelState->move(f.x() + (f.width() - labelState->width()) / 2,
                     f.y() + (f.height() - labelState->height()) / 2);
    labelError->setGeometry(
        f.adjusted(f.width() / 8, f.height() / 4, -f.width() / 8, -f.height() / 4));
    labelError->raise();
}

void UIHazePreview::setDividerPosition(double position) {
    m_divider = std::clamp(position, 0.0, 1.0);
    update();
}

void UIHazePreview::paintEvent(QPaintEvent* /*event*/) {
    QPainter painter(this);
    if (!m_beforePixmap.isNull())
        painter.drawPixmap(pictureRect(m_beforePixmap.size()).topLeft(), m_beforePixmap);
    if (m_afterPixmap.isNull()) return;
    const QRect picture = pictureRect(m_afterPixmap.size());
    const bool split = checkBoxSplit->isChecked();
    const int x = picture.left() + static_cast<int>(m_divider * picture.width());
    if (split) painter.setClipRect(QRect(QPoint(x, picture.top()), picture.bottomRight()));
    painter.drawPixmap(picture.topLeft(), m_afterPixmap);
    if (!split) return;
    painter.setClipping(false);
    // The divider: a light line with dark edges, readable on any picture,
    // and a grip in the middle to show that it moves.
    painter.fillRect(QRect(x - 1, picture.top(), 3, picture.height()), QColor(0, 0, 0, 110));
    painter.fillRect(QRect(x, picture.top(), 1, picture.height()), Qt::white);
    const QRect grip(x - 4, picture.center().y() - 14, 9, 28);
    painter.setPen(QColor(0, 0, 0, 160));
    painter.setBrush(Qt::white);
    painter.drawRoundedRect(grip, 3, 3);
}

void UIHazePreview::resizeEvent(QResizeEvent* event) {
    m_beforePixmap = framePixmap(m_before);
    m_afterPixmap = framePixmap(m_after);
    placeOverlays();
    QWidget::resizeEvent(event);
}

void UIHazePreview::keyPressEvent(QKeyEvent* event) {
    if (event->key() != Qt::Key_Alt) {
        QWidget::keyPressEvent(event); // the wizard's keys still work
        return;
    }
    if (!event->isAutoRepeat() && !m_thread->isRunning()) showDepth();
    event->accept();
}

void UIHazePreview::keyReleaseEvent(QKeyEvent* event) {
    if (event->key() != Qt::Key_Alt) {
        QWidget::keyReleaseEvent(event);
        return;
    }
    // A repeated key sends releases while it is still held; only the real
    // one ends the depth view. A run in flight will show its own result.
    if (!event->isAutoRepeat() && m_showingDepth && !m_thread->isRunning()) updatePreview();
    event->accept();
}

void UIHazePreview::mousePressEvent(QMouseEvent* event) {
    const QRect picture =
        pictureRect(m_afterPixmap.isNull() ? m_beforePixmap.size() : m_afterPixmap.size());
    if (event->button() != Qt::LeftButton || !checkBoxSplit->isChecked() ||
        !picture.contains(event->position().toPoint())) {
        QWidget::mousePressEvent(event);
        return;
    }
    m_dragging = true;
    setFocus(Qt::MouseFocusReason);
    mouseMoveEvent(event);
}

void UIHazePreview::mouseMoveEvent(QMouseEvent* event) {
    if (!m_dragging) return;
    const QRect picture =
        pictureRect(m_afterPixmap.isNull() ? m_beforePixmap.size() : m_afterPixmap.size());
    if (picture.width() > 0)
        setDividerPosition((event->position().x() - picture.left()) / picture.width());
}

void UIHazePreview::mouseReleaseEvent(QMouseEvent* event) {
    if (event->button() == Qt::LeftButton) m_dragging = false;
    QWidget::mouseReleaseEvent(event);
}
