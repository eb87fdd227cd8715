// SkyrinseWizard: the desktop face of `skyrinse --gui`. Three pages: the
// photographs, the plug-in's own page (its split preview), and the run.
// The wizard takes the plug-in's page; it must be closed before the
// plug-in is unloaded.
#pragma once

#include <QStringList>
#include <QWizard>

class BatchPage;
class PhotoListPage;
class ZIPluginOne2One;

class SkyrinseWizard : public QWizard {
    Q_OBJECT

public:
    enum PageId { PhotosPage = 0, PluginPage = 1, RunPage = 2 };

    SkyrinseWizard(ZIPluginOne2One* process, const QStringList& files, QWidget* parent = nullptr);
    ~SkyrinseWizard() override;

    PhotoListPage* photos() const { return m_photos; }
    BatchPage* run() const { return m_run; }

protected:
    void initializePage(int id) override;

private:
    PhotoListPage* m_photos;
    BatchPage* m_run;
};
