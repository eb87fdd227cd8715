#include "host/PhotoListPage.h"

#include "plugin/ZIPluginOne2One.h"

#include <QDir>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QListWidget>
#include <QMimeData>
#include <QPushButton>
#include <QShortcut>
#include <QStandardPaths>
#include <QVBoxLayout>

namespace {

QStringList localFiles(const QMimeData* data) {
    QStringList files;
    if (!data || !data->hasUrls()) return files;
    for (const QUrl& url : data->urls())
        if (url.isLocalFile() && QFileInfo(url.toLocalFile()).isFile()) files << url.toLocalFile();
    return files;
}

} // namespace

PhotoListPage::PhotoListPage(ZIPluginOne2One* process, const QStringList& files, QWidget* parent)
    : QWizardPage(parent), m_process(process), m_list(new QListWidget(this)),
      m_add(new QPushButton(tr("&Add photographs..."), this)),
      m_remove(new QPushButton(tr("&Remove"), this)) {
    setObjectName(QStringLiteral("PhotoListPage"));
    setTitle(tr("Photographs"));
    setSubTitle(tr("Choose the photographs to dehaze, or drop them onto the list. Each is "
                   "written beside its source with \"_dehazed\" in its name."));
    setAcceptDrops(true);
    m_list->setObjectName(QStringLiteral("photoList"));
    m_list->setSelectionMode(QAbstractItemView::ExtendedSelection);
    m_add->setObjectName(QStringLiteral("addPhotos"));
    m_remove->setObjectName(QStringLiteral("removePhotos"));
    m_add->setShortcut(QKeySequence::Open);
    auto* remove = new QShortcut(QKeySequence::Delete, m_list);
    remove->setContext(Qt::WidgetShortcut);
    connect(remove, &QShortcut::activated, this, &PhotoListPage::removeSelected);

    auto* buttons = new QHBoxLayout;
    buttons->addWidget(m_add);
    buttons->addWidget(m_remove);
    buttons->addStretch(1);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(m_list, 1);
    layout->addLayout(buttons);

    connect(m_add, &QPushButton::clicked, this, &PhotoListPage::chooseFiles);
    connect(m_remove, &QPushButton::clicked, this, &PhotoListPage::removeSelected);
    connect(m_list, &QListWidget::itemSelectionChanged, this,
            [this] { m_remove->setEnabled(!m_list->selectedItems().isEmpty()); });
    m_remove->setEnabled(false);
    addFiles(files);
}

QStringList PhotoListPage::files() const {
    QStringList result;
    for (int i = 0; i < m_list->count(); ++i)
        result << m_list->item(i)->data(Qt::UserRole).toString();
    return result;
}

void PhotoListPage::addFiles(const QStringList& files) {
    for (const QString& file : files) {
        const QString path = QFileInfo(file).absoluteFilePath();
        if (this->files().contains(path)) continue;
        auto* item = new QListWidgetItem(QDir::toNativeSeparators(path), m_list);
        item->setData(Qt::UserRole, path);
        item->setToolTip(path);
    }
    emit completeChanged();
}

bool PhotoListPage::isComplete() const {
    return m_list->count() > 0;
}

bool PhotoListPage::validatePage() {
    m_process->configureImages(files());
    return true;
}

void PhotoListPage::chooseFiles() {
    const QString start = m_list->count() > 0
                              ? QFileInfo(files().constLast()).absolutePath()
                              : QStandardPaths::writableLocation(QStandardPaths::PicturesLocation);
    addFiles(QFileDialog::getOpenFileNames(
        this, tr("Add photographs"), start,
        tr("Images (*.jpg *.jpeg *.png *.tif *.tiff *.exr *.hdr *.webp *.ppm *.bmp);;"
           "All files (*)")));
}

void PhotoListPage::removeSelected() {
    qDeleteAll(m_list->selectedItems());
    emit completeChanged();
}

void PhotoListPage::dragEnterEvent(QDragEnterEvent* event) {
    if (!localFiles(event->mimeData()).isEmpty()) event->acceptProposedAction();
}

void PhotoListPage::dropEvent(QDropEvent* event) {
    const QStringList files = localFiles(event->mimeData());
    if (files.isEmpty()) return;
    addFiles(files);
    event->acceptProposedAction();
}
