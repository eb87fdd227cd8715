#include "host/SkyrinseWizard.h"

#include "host/BatchPage.h"
#include "host/PhotoListPage.h"
#include "plugin/ZIPluginOne2One.h"

#include <QWizardPage>

SkyrinseWizard::SkyrinseWizard(ZIPluginOne2One* process, const QStringList& files, QWidget* parent)
    : QWizard(parent), m_photos(new PhotoListPage(process, files)), m_run(new BatchPage(process)) {
    setObjectName(QStringLiteral("SkyrinseWizard"));
    setWindowTitle(tr("Skyrinse"));
    setWizardStyle(QWizard::ModernStyle);
    setOption(QWizard::NoBackButtonOnLastPage);
    setOption(QWizard::NoCancelButtonOnLastPage);
    setPage(PhotosPage, m_photos);
    if (QWizardPage* page = process->wizardPage()) {
        // Leaving the preview starts the run; there is no way back from it.
        page->setCommitPage(true);
        setPage(PluginPage, page);
    }
    setPage(RunPage, m_run);
    setButtonText(QWizard::CommitButton, tr("&Dehaze"));
    resize(900, 720);
    setMinimumSize(640, 520);
}

SkyrinseWizard::~SkyrinseWizard() = default;

void SkyrinseWizard::initializePage(int id) {
    if (id == RunPage) m_run->setFiles(m_photos->files());
    QWizard::initializePage(id);
}
