// BatchPage: the last page of the desktop wizard. It dehazes every
// photograph with the settings the user gave it on the plug-in's page, on a
// thread of its own so that the window stays alive, and lists each file's
// result: the output written, or the reason it failed. A failure never ends
// the batch. Closing the window stops after the file in progress.
#pragma once

#include <QStringList>
#include <QWizardPage>
#include <atomic>
#include <vector>

class QLabel;
class QProgressBar;
class QThread;
class QTreeWidget;
class ZIPluginOne2One;
struct HazeSettings;

class BatchPage : public QWizardPage {
    Q_OBJECT

public:
    BatchPage(ZIPluginOne2One* process, QWidget* parent = nullptr);
    ~BatchPage() override;

    // The photographs of the next run.
    void setFiles(const QStringList& files) { m_files = files; }
    void initializePage() override;
    bool isComplete() const override;

    bool done() const { return m_done; }
    // "file: result" per photograph, as the list shows them.
    QStringList resultLines() const;
    int failures() const { return m_failures; }

signals:
    void batchFinished();

private:
    void fileStarted(int index);
    void fileWritten(int index, const QString& output, double seconds);
    void fileFailed(int index, const QString& message, const QString& location);
    void finish();
    void releaseSettings();

    ZIPluginOne2One* m_process;
    QStringList m_files;
    std::vector<HazeSettings*> m_settings; // one per file, released by the plug-in
    QThread* m_thread = nullptr;
    std::atomic<bool> m_stop{false};
    bool m_done = false;
    int m_failures = 0;
    int m_finished = 0;

    QProgressBar* m_progress;
    QTreeWidget* m_results;
    QLabel* m_summary;
};
