#include "host/GuiWalkthrough.h"

#include "host/BatchPage.h"
#include "host/SkyrinseWizard.h"

#include <QAbstractButton>
#include <QApplication>
#include <QKeyEvent>
#include <QPixmap>
#include <QWizardPage>
#include <cstdio>

GuiWalkthrough::GuiWalkthrough(SkyrinseWizard* wizard, const QString& folder)
    : QObject(wizard), m_wizard(wizard), m_folder(folder) {
    m_folder.mkpath(QStringLiteral("."));
    connect(&m_timer, &QTimer::timeout, this, &GuiWalkthrough::step);
    m_timer.start(200);
}

void GuiWalkthrough::save(QWidget* widget, const QString& name) const {
    const QString path = m_folder.filePath(name);
    // Photographs are kept as JPEG, pages of plain widgets as PNG.
    const int quality = name.endsWith(QLatin1String(".jpg")) ? 92 : -1;
    if (!widget || !widget->grab().save(path, nullptr, quality))
        std::fprintf(stderr, "skyrinse: could not save %s\n", qPrintable(path));
    else
        std::fprintf(stderr, "skyrinse: saved %s\n", qPrintable(path));
}

void GuiWalkthrough::step() {
    if (!m_wizard->isVisible()) return;
    QWizardPage* page = m_wizard->currentPage();
    switch (m_stage) {
    case 0: // the photographs
        save(m_wizard, QStringLiteral("wizard-photos.png"));
        m_wizard->next();
        ++m_stage;
        break;
    case 1: { // the plug-in's page, once its preview is there
        if (m_wizard->currentId() != SkyrinseWizard::PluginPage || !page->isComplete()) return;
        QWidget* preview = page->findChild<QWidget*>(QStringLiteral("UIHazePreviewClass"));
        save(m_wizard, QStringLiteral("wizard-preview.jpg"));
        save(preview, QStringLiteral("preview-split.jpg"));
        if (preview) {
            QKeyEvent press(QEvent::KeyPress, Qt::Key_Alt, Qt::AltModifier);
            QApplication::sendEvent(preview, &press);
            save(preview, QStringLiteral("preview-depth.jpg"));
            QKeyEvent release(QEvent::KeyRelease, Qt::Key_Alt, Qt::NoModifier);
            QApplication::sendEvent(preview, &release);
        }
        m_wizard->next();
        ++m_stage;
        break;
    }
    case 2: // the run, once every file has its result
        if (m_wizard->currentId() != SkyrinseWizard::RunPage || !m_wizard->run()->done()) return;
        save(m_wizard, QStringLiteral("wizard-done.png"));
        for (const QString& line : m_wizard->run()->resultLines())
            std::fprintf(stderr, "skyrinse: %s\n", qPrintable(line));
        m_timer.stop();
        m_wizard->button(QWizard::FinishButton)->click();
        break;
    }
}
