// UIHazePage: the haze plug-in's wizard page: the image list of
// UIImageDefListWizard around the split preview of UIHazePreview.
#pragma once

#include "ui/UIImageDefListWizard.h"

class UIHazePreview;
class ZHazeOne2One;

class UIHazePage : public UIImageDefListWizard {
    Q_OBJECT

public:
    UIHazePage(ZHazeOne2One* plugin, QWidget* parent = nullptr);
    ~UIHazePage() override;

    void setImage(ZIHostImage* image, HazeSettings* settings) override;
    void applyToAll() override;

    UIHazePreview* preview() const { return m_preview; }

protected:
    void imagesReplaced() override;
    void changeEvent(QEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void keyReleaseEvent(QKeyEvent* event) override;

private:
    ZHazeOne2One* m_plugin;
    UIHazePreview* m_preview;
};
