// GuiWalkthrough: steps through the wizard on its own, as a user would, and
// saves a picture of each stage into a folder: the photographs page, the
// plug-in's page (whole window, split preview, depth view while Alt is
// held) and the finished run; then presses Finish. The end-to-end test and
// scripts/screenshots use it (skyrinse --gui --walkthrough DIR FILE...).
#pragma once

#include <QDir>
#include <QObject>
#include <QTimer>

class SkyrinseWizard;
class QWidget;

class GuiWalkthrough : public QObject {
    Q_OBJECT

public:
    GuiWalkthrough(SkyrinseWizard* wizard, const QString& folder);

private:
    void step();
    void save(QWidget* widget, const QString& name) const;

    SkyrinseWizard* m_wizard;
    QDir m_folder;
    QTimer m_timer;
    int m_stage = 0;
};
