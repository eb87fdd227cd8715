#include "ui/UIHazePage.h"

#include "plugin/ZHazeOne2One.h"
#include "ui/UIHazePreview.h"

#include <QComboBox>
#include <QCoreApplication>
#include <QEvent>
#include <QKeyEvent>

UIHazePage::UIHazePage(ZHazeOne2One* plugin, QWidget* parent)
    : UIImageDefListWizard(parent), m_plugin(plugin), m_preview(new UIHazePreview(plugin)) {
    setContent(m_preview);
    setTitle(m_plugin->name());
    setSubTitle(m_plugin->description());
}

UIHazePage::~UIHazePage() = default;

void UIHazePage::changeEvent(QEvent* event) {
    if (event->type() == QEvent::LanguageChange) setSubTitle(m_plugin->description());
    UIImageDefListWizard::changeEvent(event);
}

// Alt shows the depth map wherever the focus is on the page, the image list
// included, not only inside the preview.
void UIHazePage::keyPressEvent(QKeyEvent* event) {
    if (event->key() == Qt::Key_Alt)
        QCoreApplication::sendEvent(m_preview, event);
    else
        UIImageDefListWizard::keyPressEvent(event);
}

void UIHazePage::keyReleaseEvent(QKeyEvent* event) {
    if (event->key() == Qt::Key_Alt)
        QCoreApplication::sendEvent(m_preview, event);
    else
        UIImageDefListWizard::keyReleaseEvent(event);
}

void UIHazePage::setImage(ZIHostImage* image, HazeSettings* settings) {
    m_preview->setImage(image, settings);
}

void UIHazePage::imagesReplaced() {
    // The records of the old images are gone; their previews may be of other
    // files by the next configureImages.
    m_preview->setImage(nullptr, nullptr);
    m_preview->clearCache();
}

void UIHazePage::applyToAll() {
    HazeSettings* current = images().value(currentImage(), nullptr);
    if (!current) return;
    for (HazeSettings* settings : images())
        m_plugin->copySettings(settings, current);
    m_plugin->rememberDefaults(current);
}
