// The plug-in's page driven as a user drives it, on the offscreen platform:
// the pictures the preview paints are grabbed and compared, the worker is
// stressed, failed and interrupted. Photographs are synthetic hazy scenes
// that a fake host hands out at any size.
#include "ZImage/ThreadCount.h"
#include "ZImage/ZImage.h"
#include "ZImage/ZImageHaze.h"
#include "plugin/ZHazeOne2One.h"
#include "plugin/ZIApplication.h"
#include "runtime/nrt.h"
#include "tests/runtime/HeapRecorder.h"
#include "ui/ComputePreview.h"
#include "ui/QAnimatedLabel.h"
#include "ui/UIHazePage.h"
#include "ui/UIHazePreview.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QFrame>
#include <QLabel>
#include <QLayout>
#include <QPointer>
#include <QPushButton>
#include <QSignalSpy>
#include <QSlider>
#include <QSpinBox>
#include <QTest>
#include <QToolButton>
#include <QTranslator>
#include <atomic>
#include <cmath>
#include <gtest/gtest.h>
#include <memory>

namespace {

// A hazy scene: coloured blocks veiled by an airlight that thickens towards
// the top, as distance does in a landscape. `hue` tells scenes apart.
class FakeImage : public ZIHostImage {
public:
    FakeImage(QString name, int width, int height, int hue)
        : m_name(std::move(name)), m_width(width), m_height(height), m_hue(hue) {}
    QString name() const override { return m_name; }
    int height() const override { return m_height; }
    int width() const override { return m_width; }
    int channelCount() const override { return 3; }
    int bitDepth() const override { return 8; }
    bool forcesTiff() const override { return false; }
    ZImage* scaledImage(int width, int height, int) override {
        ++decodes;
        m_scaled = std::make_unique<ZImage>(width, height, ZImage::RGBA, 8);
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                const float t = 0.3f + 0.6f * y / height;
                const int block = (x * 8 / width + y * 6 / height + m_hue) % 5;
                const float scene[5][3] = {{0.7f, 0.2f, 0.1f},
                                           {0.1f, 0.5f, 0.2f},
                                           {0.2f, 0.3f, 0.7f},
                                           {0.6f, 0.6f, 0.1f},
                                           {0.15f, 0.1f, 0.1f}};
                const float air[3] = {0.88f, 0.9f, 0.93f};
                std::uint8_t* p = m_scaled->PixelAt(x, y);
                for (int c = 0; c < 3; ++c)
                    p[c] = static_cast<std::uint8_t>(
                        std::lround(255 * (scene[block][c] * t + air[c] * (1 - t))));
                p[3] = 255;
            }
        return m_scaled.get();
    }
    void releaseScaledImage(int, int, int) override { m_scaled.reset(); }
    ZImage* acquireImage(int) override { return nullptr; }
    void releaseImage(int) override {}

    std::atomic<int> decodes{0};

private:
    QString m_name;
    int m_width, m_height, m_hue;
    std::unique_ptr<ZImage> m_scaled;
};

class FakeHost : public QApplication, public ZIApplication {
    Q_OBJECT
    Q_INTERFACES(ZIApplication)

public:
    FakeHost(int& argc, char** argv) : QApplication(argc, argv) {}
    QVariant value(const QString& id, const QString& key, const QVariant& def) const override {
        return store.value(id + QLatin1Char('/') + key, def);
    }
    void setValue(const QString& id, const QString& key, const QVariant& value) override {
        store.insert(id + QLatin1Char('/') + key, value);
    }
    int threadFactorA() const override { return 2; }
    int threadFactorB() const override { return 1; }
    QLocale locale() const override { return QLocale::c(); }
    void installTranslation(const QString&) override {}
    ZIHostImage* image(const QString& path) override {
        auto found = images.find(path);
        return found == images.end() ? nullptr : found->get();
    }

    QMap<QString, QVariant> store;
    QMap<QString, std::shared_ptr<FakeImage>> images;
};

FakeHost* host = nullptr;

class UiTest : public ::testing::Test {
protected:
    void SetUp() override {
        host->images.clear();
        host->store.clear();
        // Landscape, portrait, and a small landscape that is scaled up.
        host->images.insert("a.jpg", std::make_shared<FakeImage>("a.jpg", 1600, 1000, 0));
        host->images.insert("b.jpg", std::make_shared<FakeImage>("b.jpg", 900, 1200, 2));
        host->images.insert("c.jpg", std::make_shared<FakeImage>("c.jpg", 640, 400, 4));
        plugin = std::make_unique<ZHazeOne2One>();
        plugin->configureImages({"a.jpg", "b.jpg", "c.jpg"});
        page = qobject_cast<UIHazePage*>(plugin->wizardPage());
        ASSERT_NE(page, nullptr);
        page->resize(820, 620);
        page->show();
        page->activateWindow();
        ASSERT_TRUE(QTest::qWaitForWindowActive(page));
        preview = page->preview();
        ASSERT_TRUE(waitComplete());
    }
    void TearDown() override {
        page = nullptr;
        plugin.reset(); // deletes the page, which waits for its worker
        nrt_set_heap_ops(nullptr);
    }

    template <class T>
    T* child(const char* name) const {
        return page->findChild<T*>(QString::fromLatin1(name));
    }
    bool waitComplete(int ms = 120000) const {
        return QTest::qWaitFor(
            [&] {
                return preview->property("isComplete").toBool() && !preview->worker()->isRunning();
            },
            ms);
    }
    void setStrength(int value) {
        child<QSpinBox>("spinBoxPourcent")->setValue(value);
        ASSERT_TRUE(waitComplete());
    }
    // Where the picture stands in the preview widget: centred in the frame.
    QRect pictureRect() const {
        const QRect f = child<QFrame>("frame")->geometry();
        const FakeImage* image =
            host->images.value(child<QComboBox>("comboBoxImageDef")->currentText()).get();
        const QSize s = UIHazePreview::previewSize(image->width(), image->height())
                            .scaled(f.size(), Qt::KeepAspectRatio);
        return QRect(
            f.topLeft() + QPoint((f.width() - s.width()) / 2, (f.height() - s.height()) / 2), s);
    }
    QRgb pixelAt(const QImage& grab, double fx, double fy) const {
        const QRect r = pictureRect();
        return grab.pixel(r.left() + static_cast<int>(fx * r.width()),
                          r.top() + static_cast<int>(fy * r.height()));
    }
    QImage grab() const { return preview->grab().toImage(); }
    HazeSettings* current() const { return page->images().value(page->currentImage()); }

    std::unique_ptr<ZHazeOne2One> plugin;
    UIHazePage* page = nullptr;
    UIHazePreview* preview = nullptr;
};

int distance(QRgb a, QRgb b) {
    return std::abs(qRed(a) - qRed(b)) + std::abs(qGreen(a) - qGreen(b)) +
           std::abs(qBlue(a) - qBlue(b));
}

TEST(PreviewSizeTest, LongerSideIs1024) {
    const struct {
        int width, height;
        QSize expected;
    } cases[] = {
        {6000, 4000, {1024, 682}}, // truncated, not rounded
        {4000, 6000, {682, 1024}},
        {500, 500, {1024, 1024}}, // smaller pictures are enlarged
        {300, 200, {1024, 682}},
        {0, 0, {1024, 1024}}, // unreadable header: the decode will say why
    };
    for (const auto& c : cases)
        EXPECT_EQ(UIHazePreview::previewSize(c.width, c.height), c.expected)
            << c.width << "x" << c.height;
}

TEST_F(UiTest, SplitViewShowsBeforeLeftAfterRightAroundTheDraggedDivider) {
    setStrength(0);
    const QImage before = grab();
    setStrength(80);
    EXPECT_TRUE(page->isComplete());
    EXPECT_FALSE(child<QAnimatedLabel>("labelState")->isVisible());
    const QImage split = grab();
    // Left of the middle the picture as shot; right of it, the corrected one.
    for (double fy : {0.2, 0.5, 0.8}) {
        EXPECT_EQ(pixelAt(split, 0.25, fy), pixelAt(before, 0.25, fy));
        EXPECT_GT(distance(pixelAt(split, 0.75, fy), pixelAt(before, 0.75, fy)), 30) << fy;
    }
    // Drag the divider to 90 % of the width: 0.75 is now left of it.
    const QRect r = pictureRect();
    const QPoint y(0, r.center().y());
    QTest::mousePress(preview, Qt::LeftButton, {}, QPoint(r.left() + r.width() / 2, y.y()));
    QTest::mouseMove(preview, QPoint(r.left() + r.width() * 7 / 10, y.y()));
    QTest::mouseMove(preview, QPoint(r.left() + r.width() * 9 / 10, y.y()));
    QTest::mouseRelease(preview, Qt::LeftButton, {}, QPoint(r.left() + r.width() * 9 / 10, y.y()));
    EXPECT_NEAR(preview->dividerPosition(), 0.9, 0.01);
    const QImage dragged = grab();
    EXPECT_EQ(pixelAt(dragged, 0.75, 0.5), pixelAt(before, 0.75, 0.5));
    EXPECT_EQ(pixelAt(dragged, 0.95, 0.5), pixelAt(split, 0.95, 0.5));
    // Unchecked: the corrected picture everywhere.
    QTest::mouseClick(child<QCheckBox>("checkBoxSplit"), Qt::LeftButton);
    EXPECT_GT(distance(pixelAt(grab(), 0.25, 0.5), pixelAt(before, 0.25, 0.5)), 30);
}

TEST_F(UiTest, StrengthDrivesThePictureThroughSliderAndSpinBox) {
    auto* slider = child<QSlider>("horizontalSlider");
    auto* spin = child<QSpinBox>("spinBoxPourcent");
    setStrength(30);
    EXPECT_EQ(slider->value(), 30);
    const QRgb weak = pixelAt(grab(), 0.75, 0.3);
    slider->setFocus();
    QTest::keyClick(slider, Qt::Key_PageUp); // +10 per page
    QTest::keyClick(slider, Qt::Key_PageUp);
    ASSERT_TRUE(waitComplete());
    EXPECT_EQ(spin->value(), 50);
    EXPECT_EQ(current()->strength, 50);
    const QRgb strong = pixelAt(grab(), 0.75, 0.3);
    // A stronger correction takes more of the veil: darker in the far rows.
    EXPECT_LT(qRed(strong) + qGreen(strong) + qBlue(strong),
              qRed(weak) + qGreen(weak) + qBlue(weak));
}

TEST_F(UiTest, AltShowsTheDepthMapInGreyWhileHeld) {
    setStrength(70);
    const QImage result = grab();
    // Pressed while the image list has the focus: the page hands it over.
    auto* combo = child<QComboBox>("comboBoxImageDef");
    QTest::keyPress(combo, Qt::Key_Alt);
    const QImage depth = grab();
    for (double fy : {0.2, 0.5, 0.8}) {
        const QRgb p = pixelAt(depth, 0.8, fy);
        EXPECT_TRUE(qRed(p) == qGreen(p) && qGreen(p) == qBlue(p)) << fy;
        EXPECT_EQ(pixelAt(depth, 0.2, fy), pixelAt(result, 0.2, fy)); // before half untouched
    }
    // Farther rows (the top) are more veiled than near ones.
    EXPECT_GT(qRed(pixelAt(depth, 0.8, 0.1)), qRed(pixelAt(depth, 0.8, 0.9)));
    QTest::keyRelease(combo, Qt::Key_Alt);
    EXPECT_EQ(grab(), result);

    // During a computation Alt changes nothing.
    child<QSpinBox>("spinBoxPourcent")->setValue(71);
    ASSERT_TRUE(preview->worker()->isRunning() || preview->property("isComplete").toBool());
    if (preview->worker()->isRunning()) {
        const QImage busy = grab();
        QTest::keyPress(preview, Qt::Key_Alt);
        EXPECT_EQ(grab(), busy);
        QTest::keyRelease(preview, Qt::Key_Alt);
    }
    ASSERT_TRUE(waitComplete());
}

TEST_F(UiTest, PrevNextWrapAndEachImageKeepsItsStrengthMapAndPicture) {
    auto* combo = child<QComboBox>("comboBoxImageDef");
    auto* next = child<QToolButton>("QToolButton_Next");
    auto* prev = child<QToolButton>("QToolButton_Prev");
    ASSERT_TRUE(next && prev) << "the buttons carry the names a style sheet uses";
    ASSERT_EQ(combo->count(), 3);
    setStrength(40);
    const QImage first = grab();
    QTest::mouseClick(prev, Qt::LeftButton); // first -> last
    EXPECT_EQ(combo->currentIndex(), 2);
    ASSERT_TRUE(waitComplete());
    EXPECT_EQ(child<QSpinBox>("spinBoxPourcent")->value(), 0); // that image's own record
    setStrength(65);
    QTest::mouseClick(next, Qt::LeftButton); // last -> first
    EXPECT_EQ(combo->currentIndex(), 0);
    ASSERT_TRUE(waitComplete());
    EXPECT_EQ(child<QSpinBox>("spinBoxPourcent")->value(), 40);
    EXPECT_EQ(grab(), first);

    // On an image already seen a change of strength is one pass over the
    // preview: no new decode, and no solve (the solver is the only user of
    // the runtime's heap, which counts here).
    FakeImage* image = host->images.value(combo->currentText()).get();
    const int decodes = image->decodes;
    nrt_test::RecordingHeap heap;
    const auto allocations = [&] {
        return heap.log().mallocs + heap.log().callocs + heap.log().reallocs;
    };
    setStrength(90);
    // The buttons' shortcuts click them (animated, so a moment later).
    QTest::keyClick(page, Qt::Key_PageDown, Qt::ControlModifier);
    EXPECT_TRUE(QTest::qWaitFor([&] { return combo->currentIndex() == 1; }, 5000));
    ASSERT_TRUE(waitComplete());
    QTest::keyClick(page, Qt::Key_PageUp, Qt::ControlModifier);
    EXPECT_TRUE(QTest::qWaitFor([&] { return combo->currentIndex() == 0; }, 5000));
    ASSERT_TRUE(waitComplete());
    setStrength(91);
    EXPECT_EQ(image->decodes, decodes);
    EXPECT_EQ(allocations(), 0);
    combo->setCurrentIndex(1); // never solved: now it is
    setStrength(50);
    EXPECT_GT(allocations(), 0);
}

TEST_F(UiTest, ApplyToAllCopiesTheStrengthAndMakesItTheDefault) {
    setStrength(37);
    QTest::mouseClick(child<QPushButton>("pushButtonApplyAll"), Qt::LeftButton);
    for (HazeSettings* settings : page->images())
        EXPECT_EQ(settings->strength, 37);
    plugin->saveDefaults();
    EXPECT_EQ(host->value(plugin->id(), "hazeRemove", 0).toInt(), 37);
    QTest::mouseClick(child<QToolButton>("QToolButton_Next"), Qt::LeftButton);
    ASSERT_TRUE(waitComplete());
    EXPECT_EQ(child<QSlider>("horizontalSlider")->value(), 37);
}

TEST_F(UiTest, PageWaitsWhilePreviewComputesAndShowsTheAnimation) {
    QSignalSpy changed(page, &QWizardPage::completeChanged);
    child<QToolButton>("QToolButton_Next")->click(); // a new image: a full solve
    EXPECT_FALSE(page->isComplete());
    auto* animation = child<QAnimatedLabel>("labelState");
    EXPECT_TRUE(animation->isVisible());
    EXPECT_EQ(animation->frameCount(), 12);
    EXPECT_FALSE(animation->pixmap().isNull());
    EXPECT_EQ(animation->minimumSize(), QSize(64, 64));
    ASSERT_TRUE(waitComplete());
    EXPECT_TRUE(page->isComplete());
    EXPECT_GE(changed.count(), 2);
}

TEST_F(UiTest, BurstOfChangesGivesExactlyOneRerunAndTheLastSettingsWin) {
    std::atomic<int> runs{0};
    QObject::connect(
        preview->worker(), &QThread::started, preview->worker(), [&] { ++runs; },
        Qt::DirectConnection);
    auto* spin = child<QSpinBox>("spinBoxPourcent");
    // b.jpg with a strength: its first run is a solve, long enough for the burst.
    page->images().value(host->images.value("b.jpg").get())->strength = 50;
    QTest::mouseClick(child<QToolButton>("QToolButton_Next"), Qt::LeftButton);
    ASSERT_TRUE(preview->worker()->isRunning());
    for (int i = 0; i < 200; ++i)
        spin->setValue(1 + (i * 37) % 100);
    spin->setValue(73);
    ASSERT_TRUE(waitComplete());
    EXPECT_EQ(runs, 2);
    EXPECT_EQ(current()->strength, 73);
    const QImage burst = grab();
    setStrength(20);
    EXPECT_NE(grab(), burst);
    setStrength(73);
    EXPECT_EQ(grab(), burst);
    EXPECT_EQ(runs, 4);
}

TEST_F(UiTest, ClosingThePageDuringARunWaitsForIt) {
    host->setValue(plugin->id(), "hazeRemove", 50); // new records: a solve each
    QPointer<ComputePreview> worker = preview->worker();
    plugin->configureImages({"a.jpg", "b.jpg"}); // new set: the next run solves
    ASSERT_TRUE(worker->isRunning());
    child<QSpinBox>("spinBoxPourcent")->setValue(55); // and a rerun armed
    delete page;
    EXPECT_TRUE(worker.isNull());
    page = qobject_cast<UIHazePage*>(plugin->wizardPage()); // a fresh page, same images
    ASSERT_NE(page, nullptr);
    page->show();
    preview = page->preview();
    EXPECT_EQ(page->images().size(), 2);
    ASSERT_TRUE(waitComplete());
    EXPECT_EQ(child<QSpinBox>("spinBoxPourcent")->value(), 55);
}

TEST_F(UiTest, FailureInTheWorkerIsShownOnThePage) {
    {
        nrt_test::RecordingHeap failing;
        failing.log().failAfter = 0;                     // every allocation of the runtime's heap
        child<QToolButton>("QToolButton_Next")->click(); // needs a solve
        child<QSpinBox>("spinBoxPourcent")->setValue(60);
        ASSERT_TRUE(waitComplete());
    }
    auto* message = child<QLabel>("labelError");
    EXPECT_TRUE(message->isVisible());
    EXPECT_FALSE(preview->errorText().isEmpty());
    EXPECT_TRUE(message->text().contains(preview->errorText()));
    EXPECT_TRUE(page->isComplete()) << "a failed preview does not hold the wizard";
    const QImage failed = grab();
    // The message covers the middle of the picture; its dark veil is there.
    EXPECT_LT(qGray(pixelAt(failed, 0.5, 0.5)), 160);

    setStrength(61); // the heap is back: the same image computes
    EXPECT_FALSE(message->isVisible());
    EXPECT_TRUE(preview->errorText().isEmpty());
}

TEST_F(UiTest, TextsFollowTheLanguage) {
    const struct {
        const char* file;
        const char* apply;
        const char* power;
        const char* split;
        const char* prev;
        const char* next;
    } cases[] = {
        {"ZHaze_de", "Auf alle Bilder anwenden", "Stärke", "Geteilte Vorschau", "Vorheriges",
         "Nächstes"},
        {"ZHaze_fr", "Appliquer à toutes les images", "Puissance", "Aperçu avant/après",
         "Précédent", "Suivant"},
        {"ZHaze_it", "Applica a tutte le Immagini", "Potenza", "Anteprima divisa", "Precedente",
         "Successivo"},
        {"ZHaze_pl", "Zastosuj dla wszystkich zdjęć", "Poziom", "Zamień podgląd", "Poprzedni",
         "Następny"},
        {"ZHaze_re", "Применить ко всем изображениям", "Интенсивность",
         "Разделить предварительный просмотр", "Назад", "Вперед"},
        {"ZHaze_ja", "Apply to all Images", "Power", "Split preview", "Prev", "Next"},
    };
    for (const auto& c : cases) {
        QTranslator translator;
        ASSERT_TRUE(translator.load(QString::fromLatin1(c.file), ":/Translation")) << c.file;
        QApplication::installTranslator(&translator);
        QApplication::processEvents();
        page->layout()->activate();
        preview->layout()->activate();
        EXPECT_EQ(child<QPushButton>("pushButtonApplyAll")->text(), QString::fromUtf8(c.apply));
        EXPECT_EQ(child<QLabel>("label")->text(), QString::fromUtf8(c.power));
        EXPECT_EQ(child<QCheckBox>("checkBoxSplit")->text(), QString::fromUtf8(c.split));
        EXPECT_EQ(child<QToolButton>("QToolButton_Prev")->toolTip(), QString::fromUtf8(c.prev));
        EXPECT_EQ(child<QToolButton>("QToolButton_Next")->toolTip(), QString::fromUtf8(c.next));
        // The translated row still fits: nothing is cut off at this width.
        const auto* split = child<QCheckBox>("checkBoxSplit");
        EXPECT_GE(split->width(), split->sizeHint().width()) << c.file;
        QApplication::removeTranslator(&translator);
        QApplication::processEvents();
    }
}

} // namespace

int main(int argc, char** argv) {
    FakeHost app(argc, argv);
    host = &app;
    nrt_image_primitives_init();
    threadCount = 2;
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

#include "ui_test.moc"
