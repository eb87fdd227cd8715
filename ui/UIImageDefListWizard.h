// UIImageDefListWizard: a wizard page for a tool that works on several
// images. It keeps the map from the host's image objects to their settings
// records (the records belong to the plug-in), a combo box with Prev and
// Next to go through the images, and a button that applies the current
// settings to all. Subclasses give the content widget and say what showing
// an image and applying to all mean.
#pragma once

#include <QMap>
#include <QWizardPage>

class QComboBox;
class QGridLayout;
class QPushButton;
class QSpacerItem;
class QToolButton;
class ZIHostImage;
struct HazeSettings;

class UIImageDefListWizard : public QWizardPage {
    Q_OBJECT

public:
    using ImageMap = QMap<ZIHostImage*, HazeSettings*>;

    explicit UIImageDefListWizard(QWidget* parent = nullptr);
    ~UIImageDefListWizard() override;

    bool isComplete() const override;
    // Shows `settings` of `image`; called for the image that becomes current.
    virtual void setImage(ZIHostImage* image, HazeSettings* settings) = 0;
    // Gives the current image's settings to every image.
    virtual void applyToAll() = 0;

    // The widget that fills the page; it tells the page of a change of its
    // "isComplete" property through completeChanged.
    void setContent(QWidget* content);
    // Takes over the images and their records and shows the current one.
    void setImages(const ImageMap& map);
    const ImageMap& images() const { return m_images; }
    // The image the combo box shows, or null.
    ZIHostImage* currentImage() const;

public slots:
    void on_pushButtonApplyAll_clicked();
    void on_toolButtonPrev_clicked();
    void on_toolButtonNext_clicked();
    void on_comboBoxImageDef_currentIndexChanged(int index);

protected:
    void changeEvent(QEvent* event) override;
    // Called by setImages before the new images are shown: what was kept
    // about the old ones goes.
    virtual void imagesReplaced() {}

    QGridLayout* gridLayout = nullptr;
    QWidget* widget = nullptr;
    QToolButton* toolButtonPrev = nullptr;
    QComboBox* comboBoxImageDef = nullptr;
    QToolButton* toolButtonNext = nullptr;
    QPushButton* pushButtonApplyAll = nullptr;
    QSpacerItem* spacerItem = nullptr;

private:
    void setupUi();
    void retranslateUi();

    ImageMap m_images;
    QWidget* m_content = nullptr;
};
