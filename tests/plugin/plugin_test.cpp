// The haze plug-in loaded the way a host loads it: metadata, interfaces,
// resources, translations, settings XML and the run of one image.
#include "TestHost.h"
#include "ZImage/ZException.h"
#include "ZImage/ZImage.h"
#include "imagefile/Ifl.h"
#include "plugin/ZIAbout.h"
#include "plugin/ZIPluginLibrary.h"
#include "plugin/ZIPluginOne2One.h"

#include <QDir>
#include <QDomDocument>
#include <QFileInfo>
#include <QIcon>
#include <QImage>
#include <QJsonObject>
#include <QPluginLoader>
#include <QTemporaryDir>
#include <cstring>
#include <exiv2/exiv2.hpp>
#include <gtest/gtest.h>

namespace {

TestHost* host = nullptr;
const QString kProcessId = QStringLiteral("6A2F91C4-38DE-4B07-A15C-7E04D3C2B81F");

class PluginTest : public ::testing::Test {
protected:
    void SetUp() override {
        loader.setFileName(QStringLiteral(ZHAZE_PLUGIN_PATH));
        host->resetTranslations();
        host->requestedTranslations.clear();
        host->store.clear();
    }
    void TearDown() override {
        // A fresh root per test, so each sees the constructor run with its locale.
        delete loader.instance();
    }

    QObject* root() {
        QObject* object = loader.instance();
        EXPECT_NE(object, nullptr) << loader.errorString().toStdString();
        return object;
    }
    ZIPluginLibrary* library() { return qobject_cast<ZIPluginLibrary*>(root()); }
    ZIPluginOne2One* process() {
        const QList<ZIPluginProcess*> list = library()->plugins(true);
        return list.isEmpty() ? nullptr : dynamic_cast<ZIPluginOne2One*>(list.last());
    }
    QObject* processObject() {
        library()->plugins(true);
        return root()->findChildren<QObject*>(QStringLiteral("ZHazeOne2One")).value(0);
    }

    QPluginLoader loader;
};

QDomElement elementWith(const QString& attribute, const QString& value) {
    QDomDocument document(QStringLiteral("Skyrinse"));
    QDomElement element = document.createElement(QStringLiteral("Skyrinse"));
    if (!attribute.isEmpty()) element.setAttribute(attribute, value);
    return element;
}

} // namespace

TEST_F(PluginTest, MetadataCarriesTheIdentifierAndDescription) {
    const QJsonObject meta = loader.metaData();
    EXPECT_EQ(meta.value(QStringLiteral("IID")).toString(),
              QStringLiteral("org.skyrinse.ZIPluginLibrary/1.0"));
    const QJsonObject data = meta.value(QStringLiteral("MetaData")).toObject();
    EXPECT_EQ(data.value(QStringLiteral("name")).toString(), QStringLiteral("ZHaze"));
    EXPECT_EQ(data.value(QStringLiteral("version")).toString(), QStringLiteral("2.5.0.0"));
}

TEST_F(PluginTest, LibraryMakesOneProcessPerRequest) {
    ZIPluginLibrary* lib = library();
    ASSERT_NE(lib, nullptr);
    EXPECT_TRUE(lib->plugins(false).isEmpty());
    EXPECT_EQ(lib->plugins(true).size(), 1);
    EXPECT_EQ(lib->plugins(true).size(), 2);
    EXPECT_EQ(lib->plugins(false).size(), 2);
    EXPECT_EQ(root()->objectName(), QStringLiteral("ZHaze"));
}

TEST_F(PluginTest, InterfacesAnswerByName) {
    QObject* lib = root();
    EXPECT_NE(lib->qt_metacast("ZIPluginLibrary"), nullptr);
    EXPECT_NE(lib->qt_metacast("ZIAbout"), nullptr);
    EXPECT_NE(lib->qt_metacast("Library"), nullptr);
    EXPECT_EQ(lib->qt_metacast("ZIPluginOne2One"), nullptr);

    QObject* one = processObject();
    ASSERT_NE(one, nullptr);
    for (const char* name : {"ZHazeOne2One", "ZIPluginOne2One", "ZIPluginProcess", "ZIAbout"})
        EXPECT_NE(one->qt_metacast(name), nullptr) << name;
    EXPECT_EQ(one->qt_metacast("ZIPluginLibrary"), nullptr);
}

TEST_F(PluginTest, DescriptionsAndResources) {
    auto* about = static_cast<ZIAbout*>(root()->qt_metacast("ZIAbout"));
    ASSERT_NE(about, nullptr);
    EXPECT_EQ(about->name(), QStringLiteral("ZHaze"));
    EXPECT_EQ(about->id(), QStringLiteral("6A2F91C4-38DE-4B07-A15C-C95E10F73A26"));
    EXPECT_EQ(about->description(), QStringLiteral("Comment"));
    EXPECT_TRUE(about->icon().pixmap(16, 16).isNull()) << "there is no ZHaze.png";

    ZIPluginOne2One* haze = process();
    ASSERT_NE(haze, nullptr);
    EXPECT_EQ(haze->name(), QStringLiteral("Skyrinse"));
    EXPECT_EQ(haze->id(), kProcessId);
    EXPECT_EQ(haze->version(), QStringLiteral("2.5.0.0"));
    EXPECT_TRUE(haze->description().contains(QStringLiteral("white layer.This plugin")));
    EXPECT_FALSE(haze->beforeAfterIcon().isNull());
    // This host has no QApplication, so no widgets: no page, and no crash.
    EXPECT_EQ(haze->wizardPage(), nullptr);

    const QImage beforeAfter(QStringLiteral(":/%1/Resources/ZHazeBeforeAfter.png").arg(kProcessId));
    EXPECT_EQ(beforeAfter.size(), QSize(256, 128));
    EXPECT_TRUE(beforeAfter.hasAlphaChannel());
    QImage previous;
    for (int i = 1; i <= 12; ++i) {
        const QImage frame(QStringLiteral(":/%1/Resources/iconwait_%2.png")
                               .arg(kProcessId)
                               .arg(i, 2, 10, QLatin1Char('0')));
        EXPECT_EQ(frame.size(), QSize(64, 64)) << i;
        EXPECT_TRUE(frame.hasAlphaChannel()) << i;
        EXPECT_NE(frame, previous) << "frame " << i << " moves";
        previous = frame;
    }
}

TEST_F(PluginTest, TranslationFileFollowsTheHostLocale) {
    struct Case {
        QLocale locale;
        const char* file;
        const char* suffix;
    };
    const Case cases[] = {
        {QLocale(QLocale::German, QLocale::Germany), "ZHaze_de_DE.qm", "_entnebelt"},
        {QLocale(QLocale::Italian, QLocale::Italy), "ZHaze_it_IT.qm", "_senza foschia"},
        {QLocale(QLocale::French, QLocale::France), "ZHaze_fr_FR.qm", "_dehazed"},
        {QLocale(QLocale::Swedish, QLocale::Sweden), "ZHaze_sv_SE.qm", "_dehazed"},
        // The Russian file is named "re", which no Russian locale asks for.
        {QLocale(QLocale::Russian, QLocale::Russia), "ZHaze_ru_RU.qm", "_dehazed"},
    };
    for (const Case& c : cases) {
        host->testLocale = c.locale;
        host->resetTranslations();
        host->requestedTranslations.clear();
        ZIPluginOne2One* haze = process();
        ASSERT_NE(haze, nullptr);
        EXPECT_EQ(host->requestedTranslations, QStringList{QString::fromLatin1(c.file)});
        host->images.clear();
        QString output;
        // The suffix is in the output path even when the run then fails.
        HazeSettings* settings = haze->loadSettings(QDomElement());
        EXPECT_THROW(haze->processImage(QStringLiteral("/nonexistent/a.jpg"), settings, output),
                     ZException);
        haze->freeSettings(settings);
        EXPECT_EQ(output, QStringLiteral("/nonexistent/a%1.jpg").arg(QString::fromUtf8(c.suffix)))
            << c.file;
        delete loader.instance();
    }
    host->testLocale = QLocale(QLocale::English, QLocale::UnitedStates);
    host->resetTranslations();
}

TEST_F(PluginTest, SettingsTravelAsXmlAndTheElementWinsOverTheStore) {
    ZIPluginOne2One* haze = process();
    ASSERT_NE(haze, nullptr);
    host->store.insert(kProcessId + QStringLiteral("/hazeRemove"), 35);

    struct Case {
        QDomElement element;
        int strength;
    };
    const Case cases[] = {
        {QDomElement(), 35}, // null element: the store
        {elementWith(QStringLiteral("hazeRemove"), QStringLiteral("72")), 72}, // the element wins
        {elementWith(QString(), QString()), 0}, // no attribute: its default 0
        {elementWith(QStringLiteral("hazeRemove"), QStringLiteral("strong")), 0},
    };
    for (const Case& c : cases) {
        HazeSettings* settings = haze->loadSettings(c.element);
        ASSERT_NE(settings, nullptr);
        const QDomElement saved = haze->saveSettings(settings);
        EXPECT_EQ(saved.tagName(), QStringLiteral("Skyrinse"));
        EXPECT_EQ(saved.attribute(QStringLiteral("hazeRemove")).toInt(), c.strength);
        HazeSettings* again = haze->loadSettings(saved);
        EXPECT_EQ(haze->saveSettings(again).attribute(QStringLiteral("hazeRemove")),
                  QString::number(c.strength));
        haze->freeSettings(again);
        haze->freeSettings(settings);
    }

    host->store.clear();
    HazeSettings* unknown = haze->loadSettings(QDomElement());
    EXPECT_EQ(haze->saveSettings(unknown).attribute(QStringLiteral("hazeRemove")),
              QStringLiteral("0"));
    haze->freeSettings(unknown);
    haze->freeSettings(nullptr);
}

TEST_F(PluginTest, DefaultsGoToTheHostStore) {
    QObject* object = processObject();
    ASSERT_NE(object, nullptr);
    auto* haze = static_cast<ZIPluginOne2One*>(object->qt_metacast("ZIPluginOne2One"));
    HazeSettings* settings =
        haze->loadSettings(elementWith(QStringLiteral("hazeRemove"), QStringLiteral("44")));
    ASSERT_TRUE(
        QMetaObject::invokeMethod(object, "rememberDefaults", Q_ARG(HazeSettings*, settings)));
    haze->saveDefaults();
    EXPECT_EQ(host->store.value(kProcessId + QStringLiteral("/hazeRemove")), QVariant(44));
    haze->freeSettings(settings);
}

namespace {

// A small photograph with a bright, hazy top and a darker, clearer bottom.
QString writePicture(const QDir& dir, const QString& name, QImage::Format format) {
    QImage image(48, 32, format);
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            image.setPixelColor(x, y,
                                QColor(150 + y * 2 + x % 7, 160 + y * 2, 170 + y * 2 - x % 5));
    const QString path = dir.filePath(name);
    EXPECT_TRUE(image.save(path)) << path.toStdString();
    return path;
}

} // namespace

TEST_F(PluginTest, ProcessImageWritesBesideTheSourceInItsFormat) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    ZIPluginOne2One* haze = process();
    ASSERT_NE(haze, nullptr);

    struct Case {
        const char* name;
        QImage::Format format;
        const char* expected;
        int channels;
        int bits;
    };
    const Case cases[] = {
        {"a.b.JPG", QImage::Format_RGB32, "a.b_dehazed.jpg", 3, 8},
        {"grey.png", QImage::Format_Grayscale8, "grey_dehazed.png", 1, 8},
        {"deep.png", QImage::Format_RGBA64, "deep_dehazed.png", 4, 16},
        // IFL reads PPM but does not write it: the host forces TIFF.
        {"p.ppm", QImage::Format_RGB888, "p_dehazed.tiff", 3, 8},
    };
    for (const Case& c : cases) {
        const QString source =
            writePicture(QDir(dir.path()), QString::fromLatin1(c.name), c.format);
        const QByteArray before = [&] {
            QFile f(source);
            f.open(QIODevice::ReadOnly);
            return f.readAll();
        }();
        HazeSettings* settings =
            haze->loadSettings(elementWith(QStringLiteral("hazeRemove"), QStringLiteral("80")));
        QString output;
        ASSERT_NO_THROW(haze->processImage(source, settings, output)) << c.name;
        haze->freeSettings(settings);
        EXPECT_EQ(output, QDir(dir.path()).absoluteFilePath(QString::fromLatin1(c.expected)));
        ZIHostImage* written = host->image(output);
        EXPECT_EQ(written->width(), 48) << c.name;
        EXPECT_EQ(written->height(), 32) << c.name;
        EXPECT_EQ(written->channelCount(), c.channels) << c.name;
        EXPECT_EQ(written->bitDepth(), c.bits) << c.name;
        QFile again(source);
        again.open(QIODevice::ReadOnly);
        EXPECT_EQ(again.readAll(), before) << "the source is never touched";
    }
}

TEST_F(PluginTest, ASourceWithoutSuffixGivesAPathEndingInTheDot) {
    ZIPluginOne2One* haze = process();
    HazeSettings* settings = haze->loadSettings(QDomElement());
    QString output;
    EXPECT_THROW(
        haze->processImage(QStringLiteral("/nonexistent/folder/picture"), settings, output),
        ZException);
    haze->freeSettings(settings);
    EXPECT_EQ(output, QStringLiteral("/nonexistent/folder/picture_dehazed."));
}

TEST_F(PluginTest, StrengthZeroWritesThePictureUnchanged) {
    QTemporaryDir dir;
    ZIPluginOne2One* haze = process();
    const QString source =
        writePicture(QDir(dir.path()), QStringLiteral("flat.png"), QImage::Format_RGB888);
    HazeSettings* settings =
        haze->loadSettings(elementWith(QStringLiteral("hazeRemove"), QStringLiteral("0")));
    QString output;
    haze->processImage(source, settings, output);
    haze->freeSettings(settings);
    EXPECT_EQ(QImage(output).convertToFormat(QImage::Format_RGB888),
              QImage(source).convertToFormat(QImage::Format_RGB888));
}

TEST_F(PluginTest, AFailedRunLeavesNoFile) {
    QTemporaryDir dir;
    ZIPluginOne2One* haze = process();
    const QString source = QDir(dir.path()).filePath(QStringLiteral("broken.jpg"));
    QFile broken(source);
    ASSERT_TRUE(broken.open(QIODevice::WriteOnly));
    broken.write("this is not a picture");
    broken.close();
    HazeSettings* settings = haze->loadSettings(QDomElement());
    QString output;
    try {
        haze->processImage(source, settings, output);
        ADD_FAILURE() << "no exception";
    } catch (const ZException& e) {
        EXPECT_TRUE(QString::fromStdString(e.what()).startsWith(QStringLiteral("Error IFL : ")))
            << e.what();
        EXPECT_TRUE(QString::fromStdString(e.what()).contains(source)) << e.what();
    }
    haze->freeSettings(settings);
    EXPECT_FALSE(QFileInfo::exists(output));
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files), QStringList{QStringLiteral("broken.jpg")});
}

TEST_F(PluginTest, ARunCarriesEveryMetadataBlockOfTheSource) {
    QTemporaryDir dir;
    const QString source = QDir(dir.path()).filePath(QStringLiteral("rich.jpg"));
    ASSERT_TRUE(
        QFile::copy(QStringLiteral(TEST_DATA_DIR "/metadata/rich_all_metadata.jpg"), source));
    ZIPluginOne2One* haze = process();
    HazeSettings* settings =
        haze->loadSettings(elementWith(QStringLiteral("hazeRemove"), QStringLiteral("50")));
    QString output;
    ASSERT_NO_THROW(haze->processImage(source, settings, output));
    haze->freeSettings(settings);

    auto read = [](const QString& path) {
        auto image = Exiv2::ImageFactory::open(path.toStdString());
        image->readMetadata();
        return image;
    };
    const auto before = read(source);
    const auto after = read(output);
    for (const char* key :
         {"Exif.Image.Make", "Exif.GPSInfo.GPSLatitude", "Exif.Photo.DateTimeOriginal"}) {
        const auto in = before->exifData().findKey(Exiv2::ExifKey(key));
        const auto out = after->exifData().findKey(Exiv2::ExifKey(key));
        ASSERT_NE(in, before->exifData().end()) << key;
        ASSERT_NE(out, after->exifData().end()) << key;
        EXPECT_EQ(in->toString(), out->toString()) << key;
    }
    EXPECT_NE(after->exifData().findKey(Exiv2::ExifKey("Exif.Image.Make")),
              after->exifData().end());
    EXPECT_FALSE(after->iptcData().empty());
    EXPECT_EQ(after->iptcData().count(), before->iptcData().count());
    EXPECT_FALSE(after->xmpData().empty());
    ASSERT_TRUE(after->iccProfileDefined());
    EXPECT_EQ(after->iccProfile()->size_, before->iccProfile()->size_);
    EXPECT_EQ(std::memcmp(after->iccProfile()->pData_, before->iccProfile()->pData_,
                          static_cast<std::size_t>(before->iccProfile()->size_)),
              0);
}

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    TestHost app(argc, argv);
    host = &app;
    return RUN_ALL_TESTS();
}
