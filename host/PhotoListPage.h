// PhotoListPage: the first page of the desktop wizard, where the user picks
// the photographs: with a file dialog or by dropping files onto the list.
// Leaving it hands the list to the plug-in (configureImages).
#pragma once

#include <QStringList>
#include <QWizardPage>

class QListWidget;
class QPushButton;
class ZIPluginOne2One;

class PhotoListPage : public QWizardPage {
    Q_OBJECT

public:
    PhotoListPage(ZIPluginOne2One* process, const QStringList& files, QWidget* parent = nullptr);

    // The photographs in the list's order, as absolute paths.
    QStringList files() const;
    // Adds the files not yet in the list.
    void addFiles(const QStringList& files);

    bool isComplete() const override;
    bool validatePage() override;

protected:
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private slots:
    void chooseFiles();
    void removeSelected();

private:
    ZIPluginOne2One* m_process;
    QListWidget* m_list;
    QPushButton* m_add;
    QPushButton* m_remove;
};
