// UIHazePreview: the content of the haze page. A before-and-after view of
// the photograph split by a divider that the user drags, and the strength of
// the correction in percent. The corrected picture comes from the
// ComputePreview worker; while it computes, a wait animation turns over the
// picture. Holding Alt shows the depth map in the "after" part.
//
// The dynamic property "isComplete" is false while a computation runs; the
// widget tells its parent (the wizard page) by invoking its
// "completeChanged", so it needs no knowledge of the wizard.
#pragma once

#include <QImage>
#include <QPixmap>
#include <QString>
#include <QWidget>

class QCheckBox;
class QFrame;
class QGridLayout;
class QLabel;
class QSlider;
class QSpinBox;
class ComputePreview;
class QAnimatedLabel;
class ZHazeOne2One;
class ZIHostImage;
struct HazeSettings;

class UIHazePreview : public QWidget {
    Q_OBJECT

public:
    explicit UIHazePreview(ZHazeOne2One* plugin, QWidget* parent = nullptr);
    // Waits for the run in flight, without limit.
    ~UIHazePreview() override;

    // Shows `image` with the strength of `settings` and starts its preview.
    // Neither is owned; `settings` must live until the next setImage.
    void setImage(ZIHostImage* image, HazeSettings* settings);
    // Forgets the cached previews; for a new set of images.
    void clearCache();

    // Size of the preview picture of a width x height photograph: 1024
    // pixels along the longer side, the other truncated.
    static QSize previewSize(int width, int height);

    // The divider's place, as a fraction of the picture's width from its left.
    double dividerPosition() const { return m_divider; }
    void setDividerPosition(double position);
    // The text of the last failure, empty when the preview is fine.
    QString errorText() const { return m_error; }
    ComputePreview* worker() const { return m_thread; }

public slots:
    void on_spinBoxPourcent_valueChanged(int value);
    void on_checkBoxSplit_stateChanged(int state);
    void computePreview();
    void updatePreview();

private slots:
    void onSourceLoaded(quint64 tag);

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void keyReleaseEvent(QKeyEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    void setupUi();
    void retranslateUi();
    void setComplete(bool complete);
    // The picture scaled to the frame by the fast transformation.
    QPixmap framePixmap(const QImage& image) const;
    // Where a pixmap of `size` stands: centred in the frame.
    QRect pictureRect(QSize size) const;
    void placeOverlays();
    void showDepth();

    ZHazeOne2One* m_plugin;
    ComputePreview* m_thread; // child
    ZIHostImage* m_image = nullptr;
    HazeSettings* m_settings = nullptr;
    QSize m_previewSize;
    quint64 m_tag = 0;

    QImage m_before;
    QImage m_after;
    QPixmap m_beforePixmap;
    QPixmap m_afterPixmap;
    QString m_state;
    QString m_error;
    double m_divider = 0.5;
    bool m_dragging = false;
    bool m_showingDepth = false;

    QGridLayout* gridLayout = nullptr;
    QFrame* frame = nullptr;
    QLabel* label = nullptr;
    QSlider* horizontalSlider = nullptr;
    QSpinBox* spinBoxPourcent = nullptr;
    QCheckBox* checkBoxSplit = nullptr;
    QAnimatedLabel* labelState = nullptr;
    QLabel* labelError = nullptr;
};
