#include "host/BatchPage.h"

#include "ZImage/ZException.h"
#include "plugin/ZIPluginOne2One.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QHeaderView>
#include <QLabel>
#include <QProgressBar>
#include <QStyle>
#include <QThread>
#include <QTreeWidget>
#include <QVBoxLayout>

BatchPage::BatchPage(ZIPluginOne2One* process, QWidget* parent)
    : QWizardPage(parent), m_process(process), m_progress(new QProgressBar(this)),
      m_results(new QTreeWidget(this)), m_summary(new QLabel(this)) {
    setObjectName(QStringLiteral("BatchPage"));
    setTitle(tr("Dehazing"));
    setSubTitle(tr("Each photograph is written beside its source. A file that fails is listed "
                   "with the reason; the others go on."));
    m_progress->setObjectName(QStringLiteral("progress"));
    m_results->setObjectName(QStringLiteral("results"));
    m_results->setColumnCount(2);
    m_results->setHeaderLabels({tr("Photograph"), tr("Result")});
    m_results->setRootIsDecorated(false);
    m_results->setWordWrap(true);
    m_results->header()->setSectionResizeMode(0, QHeaderView::ResizeToContents);
    m_results->header()->setStretchLastSection(true);
    m_summary->setObjectName(QStringLiteral("summary"));
    m_summary->setWordWrap(true);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(m_progress);
    layout->addWidget(m_results, 1);
    layout->addWidget(m_summary);
}

BatchPage::~BatchPage() {
    if (m_thread) {
        m_stop = true;
        m_thread->wait(); // a file in progress has no cancel
    }
    releaseSettings();
}

void BatchPage::releaseSettings() {
    for (HazeSettings* settings : m_settings)
        m_process->freeSettings(settings);
    m_settings.clear();
}

bool BatchPage::isComplete() const {
    return m_done;
}

void BatchPage::initializePage() {
    if (m_thread) return; // one run per wizard
    m_results->clear();
    m_progress->setRange(0, static_cast<int>(m_files.size()));
    m_progress->setValue(0);
    m_summary->clear();
    // Records made as a run makes them, from each image's element: the
    // preview's own state never reaches a full-size run.
    for (const QString& file : std::as_const(m_files)) {
        m_settings.push_back(m_process->loadSettings(m_process->settingsElement(file)));
        auto* item = new QTreeWidgetItem(m_results, {QFileInfo(file).fileName(), tr("waiting")});
        item->setToolTip(0, QDir::toNativeSeparators(file));
    }

    m_thread = QThread::create([this] {
        for (int i = 0; i < m_files.size() && !m_stop; ++i) {
            QMetaObject::invokeMethod(
                this, [this, i] { fileStarted(i); }, Qt::QueuedConnection);
            QElapsedTimer timer;
            timer.start();
            try {
                QString output;
                m_process->processImage(m_files.at(i), m_settings.at(i), output);
                const double seconds = timer.elapsed() / 1000.0;
                QMetaObject::invokeMethod(
                    this, [this, i, output, seconds] { fileWritten(i, output, seconds); },
                    Qt::QueuedConnection);
            } catch (const ZException& e) {
                const QString message = QString::fromUtf8(e.what());
                const QString location = *e.location();
                QMetaObject::invokeMethod(
                    this, [this, i, message, location] { fileFailed(i, message, location); },
                    Qt::QueuedConnection);
            } catch (const std::exception& e) {
                const QString message = QString::fromUtf8(e.what());
                QMetaObject::invokeMethod(
                    this, [this, i, message] { fileFailed(i, message, QString()); },
                    Qt::QueuedConnection);
            } catch (...) {
                QMetaObject::invokeMethod(
                    this, [this, i] { fileFailed(i, tr("unknown failure"), QString()); },
                    Qt::QueuedConnection);
            }
        }
    });
    m_thread->setParent(this);
    connect(m_thread, &QThread::finished, this, &BatchPage::finish);
    m_thread->start();
}

QStringList BatchPage::resultLines() const {
    QStringList lines;
    for (int i = 0; i < m_results->topLevelItemCount(); ++i)
        lines << m_results->topLevelItem(i)->text(0) + QStringLiteral(": ") +
                     m_results->topLevelItem(i)->text(1);
    return lines;
}

void BatchPage::fileStarted(int index) {
    if (QTreeWidgetItem* item = m_results->topLevelItem(index)) {
        item->setText(1, tr("dehazing..."));
        m_results->scrollToItem(item);
    }
}

void BatchPage::fileWritten(int index, const QString& output, double seconds) {
    ++m_finished;
    m_progress->setValue(m_finished);
    if (QTreeWidgetItem* item = m_results->topLevelItem(index)) {
        item->setIcon(1, style()->standardIcon(QStyle::SP_DialogApplyButton));
        item->setText(
            1, tr("%1 (%2 s)").arg(QDir::toNativeSeparators(output)).arg(seconds, 0, 'f', 1));
        item->setData(1, Qt::UserRole, output);
    }
}

void BatchPage::fileFailed(int index, const QString& message, const QString& location) {
    ++m_finished;
    ++m_failures;
    m_progress->setValue(m_finished);
    if (QTreeWidgetItem* item = m_results->topLevelItem(index)) {
        item->setIcon(1, style()->standardIcon(QStyle::SP_MessageBoxWarning));
        item->setText(1, tr("failed: %1").arg(message.simplified()));
        item->setToolTip(1, location.isEmpty() ? message : message + QLatin1Char('\n') + location);
    }
}

void BatchPage::finish() {
    m_done = true;
    const int total = static_cast<int>(m_files.size());
    m_summary->setText(m_failures == 0 ? tr("%n photograph(s) written.", nullptr, total)
                                       : tr("%1 of %2 photograph(s) written; %3 failed.")
                                             .arg(total - m_failures)
                                             .arg(total)
                                             .arg(m_failures));
    emit completeChanged();
    emit batchFinished();
}
